#include "support/temp_dir.h"

#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace fs = std::filesystem;

namespace support {

TempDir::TempDir() {
  std::string name = fs::temp_directory_path() / "case.XXXXXX";
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp " + name);
  root_ = fs::canonical(name);
  fs::current_path(root_);
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::current_path("/", ignored);
  fs::remove_all(root_, ignored);
}

void TempDir::MakePanelDirs() {
  fs::create_directories("var");
  fs::create_directories("etc");
}

void TempDir::Put(const fs::path& path, std::string_view content) {
  if (path.has_parent_path()) fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content << std::flush;
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

void TempDir::PutProgram(const fs::path& path, const std::string& script) {
  Put(path, "#!/bin/sh\n" + script + "\n");
  fs::permissions(path, fs::perms::owner_all);
}

std::string TempDir::Get(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  return {std::istreambuf_iterator<char>(in), {}};
}

std::vector<std::string> Tree(const fs::path& dir) {
  std::vector<std::string> paths;
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    paths.push_back(entry.path().lexically_relative(dir));
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace support
