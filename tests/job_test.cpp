#include "pnl/job.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <thread>

#include "pnl/err.h"
#include "pnl/progress.h"
#include "pnl/thread.h"
#include "support/faults.h"

namespace {

/// What the jobs of the present case did, a letter and the job's name each: c commit, r rollback, d
/// destroyed.
std::string story;

struct Step : pnl_job::SafeJob {
  explicit Step(std::string its_name, std::function<void()> at_end)
      : name(std::move(its_name)), on_end(std::move(at_end)) {
    if (name == "unborn") throw std::runtime_error(name);
  }
  ~Step() override { story += "d" + name + " "; }
  void onCommit() override { End("c"); }
  void onRollback() override { End("r"); }
  void End(const char* how) {
    story += how + name + " ";
    on_end();
  }

  std::string name;
  std::function<void()> on_end;
};

/// The transaction owns what is made here.
Step* Make(
    const char* name, std::function<void()> on_end = [] {}) {
  return new Step(name, std::move(on_end));
}

void MakeFailing() {
  for (const char* name : {"1", "2", "3"}) Make(name, [=] { throw pnl_err::Error("step", name); });
}

/// The story of `run` on a thread of its own, with whose end the story ends.
std::string StoryOf(void (*run)()) {
  story.clear();
  std::thread(run).join();
  return story;
}

TEST(JobTest, TransactionsEndInOrder) {
  EXPECT_EQ(StoryOf([] {
              MakeFailing();
              EXPECT_THROW(pnl_job::Commit(), pnl_err::Error);
              story += "| ";
            }),
            "c1 c2 c3 d3 d2 d1 | ");
  EXPECT_EQ(StoryOf([] {
              MakeFailing();
              pnl_job::Rollback();
              story += "| ";
            }),
            "r3 r2 r1 d3 d2 d1 | ");
  EXPECT_EQ(StoryOf([] {
              Make("1")->Commit();
              Make("2")->Rollback();
              EXPECT_THROW(Make("unborn"), std::runtime_error);
              pnl_job::Commit();
            }),
            "c1 r2 d2 d1 ");
  EXPECT_EQ(StoryOf([] {
              Make("1", [] { Make("2", [] { Make("3"); }); });
              pnl_job::Commit();
              story += "| ";
              const pnl_job::Transaction left_early;
            }),
            "c1 d1 | r2 d2 r3 d3 ");
}

TEST(ThreadTest, EndsItsTransactionAndKeepsItsExceptions) {
  story.clear();
  Make("caller");
  int runs = 0;
  {
    pnl_thread::Handle handle([&] {
      Make("worker");
      if (++runs == 2) throw 0;
      throw std::runtime_error("leaves the body");
    });
    handle.join();  // nothing to wait for
    for (int run = 0; run < 2; ++run) {
      handle.Start();
      EXPECT_THROW(handle.Start(), pnl_err::Error);
      handle.join();
    }
  }
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(story, "rworker dworker rworker dworker ");
  pnl_job::Rollback();
}

TEST(ThreadTest, RefusedThreadIsAnErrorAndMayBeStartedAgain) {
  if (!support::FaultsWork()) GTEST_SKIP() << "system calls cannot be intercepted here";
  int ran = 0;
  pnl_thread::Handle handle([&] { ++ran; });
  support::FailNth(1, EAGAIN, {SYS_clone, SYS_clone3},
                   [&] { EXPECT_THROW(handle.Start(), pnl_err::Error); });
  handle.Start();
  handle.join();
  EXPECT_EQ(ran, 1);
}

TEST(ProgressTest, ReportsToTheInnermostWatchOfTheThread) {
  std::string seen;
  const auto watch = [&](const char* name) {
    return [&seen, name](std::string_view what, std::uint64_t done, std::uint64_t total) {
      seen.append(name).append(what) += std::to_string(done) + "/" + std::to_string(total) + " ";
    };
  };
  {
    const pnl_progress::Watch outer(watch("o"));
    {
      const pnl_progress::Watch inner(watch("i"));
      pnl_progress::Report("a", 1, 2);
    }
    std::thread([] { pnl_progress::Report("b", 3, 4); }).join();
    pnl_progress::Report("c", 5, 0);
  }
  pnl_progress::Report("d", 6, 7);
  EXPECT_EQ(seen, "ia1/2 oc5/0 ");
}

}  // namespace
