#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ratio.h"

/// What benchmarks with nodes share; scripts/bench runs them in a lab.
namespace bench {

inline std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr)
    throw std::runtime_error(std::string(name) + " is not set; run scripts/bench");
  return value;
}

inline void Must(bool good, const std::string& what) {
  if (good) return;
  std::cerr << program_invocation_short_name << ": failed: " << what << "\n";
  std::abort();
}

inline void Shell(const std::string& command) {
  Must(std::system(command.c_str()) == 0, command);
}

/// A temporary directory.
class Dir {
 public:
  Dir() : path_(std::filesystem::temp_directory_path() / "bench.XXXXXX") {
    Must(mkdtemp(path_.data()) != nullptr, "mkdtemp");
  }
  ~Dir() { std::filesystem::remove_all(path_); }
  Dir(const Dir&) = delete;
  Dir& operator=(const Dir&) = delete;
  std::string operator/(const char* name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace bench
