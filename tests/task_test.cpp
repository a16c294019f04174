#include "pnl/task.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "pnl/file.h"
#include "pnl/proc.h"
#include "support/error_of.h"
#include "support/temp_dir.h"

namespace {

using pnl_task::kDetached;
using pnl_task::LongTask;
using pnl_task::State;
using pnl_task::Status;
using support::ErrorOf;

class TaskTest : public support::TempDir {
 protected:
  // Starts a task of kind "K" whose program is the shell script `text`.
  static std::string Start(const std::string& name, const std::string& text,
                           const std::vector<std::string>& params = {}) {
    PutProgram("sbin/run", text);
    LongTask task("sbin/run", name, "K");
    task.SetParams(params);
    task.Start(kDetached);
    return task.Id();
  }

  static Status WaitFor(const std::string& id) {
    for (int i = 0; i < 1000 && pnl_task::Get(id).state == State::kRunning; ++i)
      pnl_proc::Sleep(10);
    return pnl_task::Get(id);
  }
};

TEST_F(TaskTest, IdsAreReadableDistinctAndStayInTheDirectory) {
  const std::string cases[][3] = {
      {"OST_INSTALL", "Repo__debian-12.0", "OST_INSTALL@Repo__debian-12.0"},
      {"..", "../../etc/passwd", "%2E.@%2E.%2F..%2Fetc%2Fpasswd"},
      {"a@b", "%\n\xc3\xbc", "a%40b@%25%0A%C3%BC"},
      {"", "", "@"},
  };
  for (const auto& [kind, name, id] : cases) EXPECT_EQ(LongTask("true", name, kind).Id(), id);
  const std::string long_id = LongTask("true", std::string(300, 'x'), "K").Id();
  EXPECT_LE(long_id.size(), 180U);
  EXPECT_NE(long_id, LongTask("true", std::string(301, 'x'), "K").Id());
}

TEST_F(TaskTest, RunsDetachedToItsEnd) {
  const std::vector<std::string> params = {"it's", "$HOME", "", "a\nb", "%41"};
  const std::string id = Start("t/1",
                               "(cd /proc/$$/fd; echo [3-9]); cut -d ' ' -f 5,6 /proc/$$/stat\n"
                               "readlink /proc/$$/fd/0; pwd; echo $PNL_TASK_PROGRESS >&2\n"
                               "printf '<%s>' \"$@\"; exit 7",
                               params);
  EXPECT_TRUE(waitpid(-1, nullptr, 0) < 0 && errno == ECHILD) << "a child is left to the caller";
  const Status status = WaitFor(id);
  EXPECT_EQ(status.state, State::kFinished);
  EXPECT_EQ(status.exit_code, 7);
  EXPECT_EQ(status.kind + status.name + status.program, "Kt/1sbin/run");
  EXPECT_EQ(status.params, params);
  EXPECT_LE(std::abs(status.started.Seconds() - time(nullptr)), 10);
  const std::string pid = std::to_string(status.pid);
  EXPECT_EQ(Get(pnl_task::LogPath(id)),
            "[3-9]\n" + pid + " " + pid + "\n/dev/null\n" + Root().string() + "\n" +
                Root().string() + "/var/tasks/" + id + ".progress\n<it's><$HOME><><a\nb><%41>");

  // The next run replaces what the last one left.
  Start("t/1", "echo again");
  EXPECT_EQ(WaitFor(id).exit_code, 0);
  EXPECT_EQ(Get(pnl_task::LogPath(id)), "again\n");
  EXPECT_EQ(pnl_task::List().size(), 1U);
}

TEST_F(TaskTest, OneRunAtATime) {
  const std::string id = Start("one", "kill -TERM $$");
  EXPECT_EQ(WaitFor(id).exit_code, 128 + SIGTERM);

  Put("sbin/run", "#!/bin/sh\nsleep 60\n");
  std::atomic<int> started = 0;
  std::vector<std::jthread> threads;
  threads.reserve(20);
  for (int i = 0; i < 20; ++i) {
    threads.emplace_back([&started] {
      const std::string error = ErrorOf([] { LongTask("sbin/run", "one", "K").Start(kDetached); });
      if (error.empty()) ++started;
      EXPECT_TRUE(error.empty() || error == "task running") << error;
    });
  }
  threads.clear();
  EXPECT_EQ(started, 1);
  const Status status = pnl_task::Get(id);
  EXPECT_EQ(status.state, State::kRunning);
  EXPECT_FALSE(status.exit_code.has_value());
  kill(-status.pid, SIGKILL);
  EXPECT_EQ(WaitFor(id).state, State::kLost);
}

TEST_F(TaskTest, OutlivesItsCaller) {
  const pid_t caller = fork();
  if (caller == 0) {
    Start("orphan", "sleep 0.5; exit 3");
    kill(getpid(), SIGKILL);
  }
  waitpid(caller, nullptr, 0);
  EXPECT_EQ(pnl_task::Get("K@orphan").state, State::kRunning);
  EXPECT_EQ(WaitFor("K@orphan").exit_code, 3);
}

TEST_F(TaskTest, WhatCannotStartLeavesNothing) {
  Put("plain", "");
  const struct {
    const char* program;
    std::string param;
    int mode;
    const char* error;
  } kCases[] = {
      {"/bin/true", "", 2, "task mode"},
      {"missing", "", kDetached, "task start"},
      {"plain", "", kDetached, "task start"},
      {"/", "", kDetached, "task start"},
      {"/bin/true", std::string(1, '\0'), kDetached, "task start"},
      {"/bin/true", std::string(1 << 20, 'x'), kDetached, "task start"},
  };
  for (const auto& c : kCases) {
    LongTask task(c.program, "n", "K");
    task.SetParams({c.param});
    EXPECT_EQ(ErrorOf([&] { task.Start(c.mode); }), c.error) << c.program;
    EXPECT_TRUE(pnl_task::List().empty());
  }
  for (const char* id : {"K@n", "", "..", "../tasks/K@n"}) {
    EXPECT_EQ(ErrorOf([&] { (void)pnl_task::LogPath(id); }), "missed task") << id;
  }
}

TEST_F(TaskTest, DamagedStateIsLeftOut) {
  WaitFor(Start("good", "true"));
  for (const char* text : {"", "kind=K\n", "format=1\nname=%4\n", "format=1\nname=%zz\n"}) {
    Put("var/tasks/bad.task", text);
    EXPECT_EQ(ErrorOf([] { (void)pnl_task::Get("bad"); }), "task format") << text;
    ASSERT_EQ(pnl_task::List().size(), 1U) << text;
    EXPECT_EQ(pnl_task::List().front().name, "good");
  }
}

TEST_F(TaskTest, Progress) {
  const std::string id = Start("p", "true");
  WaitFor(id);
  const std::string path = "var/tasks/" + id + ".progress";
  const auto report = [&](std::string_view what, std::uint64_t done, std::uint64_t total) {
    pnl_task::ReportProgress(what, done, total);
    const Status status = pnl_task::Get(id);
    return status.progress_what + " " + std::to_string(status.progress_done);
  };
  EXPECT_EQ(report("outside of a task", 1, 2), " 0");
  setenv("PNL_TASK_PROGRESS", path.c_str(), 1);
  EXPECT_EQ(report("a\nlong text", 1, UINT64_MAX), "a long text 1");
  EXPECT_EQ(pnl_task::Get(id).progress_total, UINT64_MAX);
  EXPECT_EQ(report("too soon", 2, 3), "a long text 1");
  EXPECT_EQ(report("end", 3, 3), "end 3");  // always, and without remains of the text before
  const std::string filled(148, 'x');       // leaves room for half of the next character
  EXPECT_EQ(report(filled + "\xc3\xbc", 4, 4), filled + " 4");

  for (const std::string& torn : {std::string("12"), std::string(191, 'x') + "\n"}) {
    Put(path, torn);
    EXPECT_EQ(pnl_task::Get(id).progress_what, "");
  }
}

}  // namespace
