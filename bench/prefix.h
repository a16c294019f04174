#pragma once

#include <filesystem>

#include "pnl/file.h"

namespace bench {

/// A panel's prefix: the working directory while it lives, gone with all its content afterwards.
class Prefix {
 public:
  Prefix() : dir_(std::filesystem::temp_directory_path() / "bench") {
    std::filesystem::current_path(dir_.Str());
    std::filesystem::create_directories("etc");
  }
  ~Prefix() { std::filesystem::current_path("/"); }
  Prefix(const Prefix&) = delete;
  Prefix& operator=(const Prefix&) = delete;

 private:
  pnl_file::TmpDir dir_;
};

}  // namespace bench
