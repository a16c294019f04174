#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "support/belongings.h"

namespace support {

/// Runs each case in a new directory, which is the working directory during the case and is removed
/// afterwards.
///
///     class ConfigTest : public support::TempDir {};
///     TEST_F(ConfigTest, Reads) { Put("etc/a.conf", "key = value\n"); ... }
class TempDir : public testing::Test {
 protected:
  TempDir();
  ~TempDir() override;

  const std::filesystem::path& Root() const { return root_; }  ///< absolute and canonical

  static void MakePanelDirs();  ///< var/ and etc/, as a panel's prefix has them

  /// Writes a file, its parent directories too; independent of the code under test.
  static void Put(const std::filesystem::path& path, std::string_view content);
  /// A shell script that can be run.
  static void PutProgram(const std::filesystem::path& path, const std::string& script);
  /// The whole file; when it is missing, the case fails.
  static std::string Get(const std::filesystem::path& path);

 private:
  std::filesystem::path root_;
};

/// The paths below `dir`, relative to it and sorted: what an operation left behind.
std::vector<std::string> Tree(const std::filesystem::path& dir = ".");

/// How long the call takes, in seconds.
template <class Call>
double Seconds(Call call) {
  const auto start = std::chrono::steady_clock::now();
  call();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace support
