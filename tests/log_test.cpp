#include "pnl/log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "pnl/str.h"
#include "support/temp_dir.h"

namespace {

pnl_log::Module log_module("alpha");

class LogTest : public support::TempDir {
 protected:
  LogTest() { MakePanelDirs(); }

  static std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    str::Split(Get("var/log_test.log"), "\n", lines);
    lines.pop_back();
    return lines;
  }
};

TEST_F(LogTest, WritesLinesUpToTheConfiguredLevel) {
  static pnl_log::Module other("beta");
  Put("etc/log.conf", "# levels\n* 3\nalpha 9 # all\n");
  PNL_TRACE(log_module, "first '%s'", "x");  // the very first line of the process, at level 9
  PNL_LOG(other, 4, "not wanted");
  PNL_LOG(other, 3, "%s", std::string(5000, 'y').c_str());
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_NE(lines[0].find("] 9 alpha: log_test.cpp:"), std::string::npos) << lines[0];
  EXPECT_TRUE(lines[0].ends_with(" first 'x'"));
  EXPECT_TRUE(lines[1].ends_with("] 3 beta: " + std::string(5000, 'y')));
  EXPECT_FALSE(other.Enabled(4));
}

TEST_F(LogTest, KeepsErrnoAndSurvivesWithoutDirectory) {
  std::filesystem::remove("var");
  errno = ENOSPC;
  PNL_LOG(log_module, 1, "lost");
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(support::Tree(), (std::vector<std::string>{"etc"}));
}

TEST_F(LogTest, FollowsItsSettings) {
  Put("etc/log.conf", "* 3");
  pnl_log::Reload();
  pnl_log::Module late("late");
  EXPECT_FALSE(late.Enabled(4));
  pnl_log::Echo(5);
  EXPECT_TRUE(late.Enabled(5));
  testing::internal::CaptureStderr();
  PNL_LOG(late, 5, "told");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "late[5] told\n");
  EXPECT_EQ(Get("var/log_test.log"), "");
  Put("etc/log.conf", "late 7");
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));  // it counts whole seconds
  PNL_LOG(late, 1, "looks again");
  EXPECT_TRUE(late.Enabled(7));
}

TEST_F(LogTest, FollowsRotationAndDoesNotMixThreads) {
  PNL_LOG(log_module, 1, "before");
  std::filesystem::rename("var/log_test.log", "var/old.log");
  pnl_log::Reload();
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([] {
      for (int i = 0; i < 200; ++i) PNL_LOG(log_module, 1, "line end");
    });
  }
  threads.clear();
  const auto lines = Lines();
  EXPECT_EQ(lines.size(), 1600U);
  for (const auto& line : lines) EXPECT_TRUE(line.ends_with("] 1 alpha: line end")) << line;
}

}  // namespace
