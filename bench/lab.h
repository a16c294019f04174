#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
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

/// Whether a program that is only compared with is there; says so if not.
inline bool Installed(const std::string& program, const std::string& package) {
  if (std::system(("command -v " + program + " >/dev/null").c_str()) == 0) return true;
  std::cerr << program_invocation_short_name << ": skipped: " << program
            << ", which is not installed (Debian package " << package << ")\n";
  return false;
}

/// The brefirctl of this build.
inline std::string Brefirctl() {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() /
         "bin/brefirctl";
}

/// The highest resident size of a process ("self" or a pid) so far, in KiB (proc(5)); 0 without it.
inline long PeakKiB(const std::string& process) {
  std::ifstream status("/proc/" + process + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::atol(line.c_str() + 6);
  }
  return 0;
}

/// A temporary directory.
class Dir {
 public:
  std::string operator/(const char* name) const { return dir_.Str() + "/" + name; }

 private:
  pnl_file::TmpDir dir_{std::filesystem::temp_directory_path() / "bench"};
};

}  // namespace bench
