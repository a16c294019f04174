#include "pnl/job.h"

#include <sys/syscall.h>

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <thread>

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/progress.h"
#include "pnl/thread.h"
#include "support/faults.h"
#include "support/temp_dir.h"

using Strings = std::vector<std::string>;

namespace {

/// What the jobs of the present case did, one letter and the job's name each: c commit, r rollback,
/// d destroyed.
std::string story;

class Step : public pnl_job::SafeJob {
 public:
  explicit Step(
      std::string name, std::function<void()> on_end = [] {})
      : name_(std::move(name)), on_end_(std::move(on_end)) {}
  ~Step() override { Tell("d"); }

 protected:
  void onCommit() override { End("c"); }
  void onRollback() override { End("r"); }

 private:
  void Tell(const char* what) { story += what + name_ + " "; }
  void End(const char* what) {
    Tell(what);
    on_end_();
  }

  std::string name_;
  std::function<void()> on_end_;
};

/// A job that fails after its base has registered it.
struct Unborn : Step {
  Unborn() : Step("x") { throw std::runtime_error("x"); }
};

void Fail(const char* name) {
  throw pnl_err::Error("step", name);
}

/// Jobs 1, 2 and 3, of which 2 and 3 fail at the end.
void MakeFailing() {
  new Step("1");
  new Step("2", [] { Fail("2"); });
  new Step("3", [] { Fail("3"); });
  new Step("4");
}

TEST(JobTest, TransactionsEndInOrder) {
  const struct {
    const char* what;
    std::function<void()> run;
    const char* story;
  } cases[] = {
      {"commit goes on after a failure and throws the first",
       [] {
         MakeFailing();
         try {
           pnl_job::Commit();
           ADD_FAILURE() << "no error";
         } catch (const pnl_err::Error& error) {
           EXPECT_EQ(error.object(), "2");
         }
       },
       "c1 c2 c3 c4 d4 d3 d2 d1 "},
      {"rollback goes backwards and passes failures",
       [] {
         MakeFailing();
         pnl_job::Rollback();
       },
       "r4 r3 r2 r1 d4 d3 d2 d1 "},
      {"a job that ended itself does nothing at the end",
       [] {
         auto* one = new Step("1");
         auto* two = new Step("2");
         new Step("3");
         two->Commit();
         one->Rollback();
         pnl_job::Commit();
       },
       "c2 r1 c3 d3 d2 d1 "},
      {"a job whose constructor throws has left",
       [] {
         new Step("1");
         EXPECT_THROW(new Unborn, std::runtime_error);
         pnl_job::Commit();
       },
       "dx c1 d1 "},
      {"a job made during commit opens the next transaction",
       [] {
         new Step("1", [] { new Step("2"); });
         pnl_job::Commit();
         story += "| ";
       },
       "c1 d1 | r2 d2 "},
      {"a scope that is left early rolls back",
       [] {
         const pnl_job::Transaction transaction;
         new Step("1");
       },
       "r1 d1 "},
      {"a thread that ends rolls back, also what its jobs make then",
       [] { new Step("1", [] { new Step("2"); }); }, "r1 d1 r2 d2 "},
  };
  for (const auto& c : cases) {
    story.clear();
    std::thread(c.run).join();  // each case ends with its thread
    EXPECT_EQ(story, c.story) << c.what;
  }
}

class JobFileTest : public support::TempDir {};

TEST_F(JobFileTest, MoveFileTakesTheTemporaryOver) {
  const auto job = [](const char* text, const char* to) {
    pnl_file::Tmp tmp("value");
    tmp.Write(text);
    tmp.Close();
    new pnl_job::MoveFile(tmp.Release(), to);
  };
  Put("value", "old");
  job("lost", "value");
  pnl_job::Rollback();
  EXPECT_EQ(Get("value"), "old");
  job("new", "value");
  EXPECT_EQ(Get("value"), "old");
  pnl_job::Commit();
  EXPECT_EQ(Get("value"), "new");
  EXPECT_EQ(support::Tree(), Strings{"value"});
}

TEST(ThreadTest, EndsItsTransactionAndKeepsItsExceptions) {
  story.clear();
  new Step("caller");
  {
    int runs = 0;
    pnl_thread::Handle handle([&] {
      new Step("worker");
      if (++runs == 2) throw 0;
      throw std::runtime_error("leaves the body");
    });
    handle.join();  // nothing to wait for
    for (int run = 0; run < 2; ++run) {
      handle.Start();
      EXPECT_THROW(handle.Start(), pnl_err::Error);
      handle.join();
    }
    EXPECT_EQ(runs, 2);
  }
  EXPECT_EQ(story, "rworker dworker rworker dworker ");
  pnl_job::Rollback();
}

TEST(ThreadTest, RefusedThreadIsAnErrorAndMayBeStartedAgain) {
  if (!support::FaultsWork()) GTEST_SKIP() << "system calls cannot be intercepted here";
  bool ran = false;
  pnl_thread::Handle handle([&] { ran = true; });
  std::string number;
  support::FailNth(1, EAGAIN, {SYS_clone, SYS_clone3}, [&] {
    try {
      handle.Start();
    } catch (const pnl_err::Error& error) {
      number = error.type() + " " + error.object() + " " + error.param("errno");
    }
  });
  EXPECT_EQ(number, "thread start " + std::to_string(EAGAIN));
  handle.Start();
  handle.join();
  EXPECT_TRUE(ran);
}

TEST(ProgressTest, ReportsToTheInnermostWatchOfTheThread) {
  std::string seen;
  const auto watch = [&](const char* name) {
    return [&seen, name](std::string_view what, std::uint64_t done, std::uint64_t total) {
      seen.append(name).append(what) += std::to_string(done) + "/" + std::to_string(total) + " ";
    };
  };
  pnl_progress::Report("a", 1, 2);
  {
    const pnl_progress::Watch outer(watch("o"));
    {
      const pnl_progress::Watch inner(watch("i"));
      pnl_progress::Report("b", 3, 4);
    }
    std::thread([] { pnl_progress::Report("c", 5, 6); }).join();
    pnl_progress::Report("d", 7, 0);
  }
  pnl_progress::Report("e", 8, 9);
  EXPECT_EQ(seen, "ib3/4 od7/0 ");
}

}  // namespace
