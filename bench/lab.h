#pragma once

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "pnl/file.h"
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
  std::string operator/(const char* name) const { return dir_.Str() + "/" + name; }

 private:
  pnl_file::TmpDir dir_{std::filesystem::temp_directory_path() / "bench"};
};

}  // namespace bench
