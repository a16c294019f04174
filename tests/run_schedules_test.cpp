// Runs in the orders that break a promise when one of their rules is left out: see run_model_test.cpp.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>

#include "fleet/fan.h"
#include "fleet/host_steps.h"
#include "fleet/journal.h"
#include "fleet/run.h"
#include "pnl/file.h"
#include "support/error_of.h"
#include "support/lab.h"

namespace {

using fleet::NodeRunState;
using fleet::RunState;
using support::LabNode;

/// A file, and a command that is counted in /srv/t/log, as its undo is.
class RunSchedulesTest : public support::LabTest {
 protected:
  void SetUp() override {
    support::LabTest::SetUp();
    std::filesystem::remove_all("/srv/panel");
    pnl_file::MkDir("/srv/panel");
    journal_ = Books();
    for (const char* name : {"n1", "n2"}) {
      nodes_.push_back(std::make_unique<LabNode>());
      nodes_.back()->Exec("mkdir -p /srv/t; echo one >/srv/t/file; touch /srv/t/log");
      targets_.push_back({name, nodes_.back()->Login(1)});
      targets_.back().login->name = name;
    }
  }

  static std::unique_ptr<fleet::Journal> Books() {
    return std::make_unique<fleet::Journal>(pnl_db::Cache::Open("sqlite:/srv/panel/fleet.db"));
  }

  static std::vector<fleet::Edit> Edits(const std::string& command = "echo ran >>/srv/t/log") {
    return {{.look = [](fleet::Looks& looks) { looks.files.insert("/srv/t/file"); },
             .make =
                 [=](fleet::Draft& draft) {
                   draft.Write("/srv/t/file", "two\n");
                   draft.Run("command", command, "echo undone >>/srv/t/log");
                 }}};
  }

  /// Another panel plans and makes a run; it returns when that has ended or is killed.
  static void Elsewhere(const std::function<void()>& work,
                        const std::function<void(pid_t)>& meanwhile) {
    const pid_t pid = fork();
    if (pid == 0) {
      work();
      _exit(0);
    }
    meanwhile(pid);
    waitpid(pid, nullptr, 0);
  }

  std::string State(std::size_t i) const { return nodes_[i]->Exec("cd /srv/t; cat file log"); }
  void Await(std::size_t i, const std::string& condition) const {
    nodes_[i]->Exec("until " + condition + "; do sleep 0.02; done");
  }

  /// What is still on its way to a node when its panel is dead comes now.
  std::string SendLate(std::size_t i, const fleet::RunHead& run) const {
    pnl_host::Host host{pnl_rpc::SSH(*targets_[i].login)};
    const fleet::RunMark mark{.name = std::to_string(run.id) + "-" + run.token, .epoch = 1};
    const auto steps = journal_->Find(run.id).nodes[i].steps;
    return support::ErrorOf([&] { (void)fleet::MakeSteps(host, mark, steps); }, {"message"}) +
           support::ErrorOf([&] { (void)fleet::UndoSteps(host, mark, steps); }) +
           support::ErrorOf([&] { fleet::EndSteps(host, mark); });
  }

  std::unique_ptr<fleet::Journal> journal_;
  std::vector<std::unique_ptr<LabNode>> nodes_;
  std::vector<fleet::RunTarget> targets_;
};

constexpr const char* kBefore = "one\n";
constexpr const char* kAfter = "two\nran\n";

TEST_F(RunSchedulesTest, LateCommandsAreRefused) {
  for (const bool resumed : {true, false}) {
    SCOPED_TRACE(resumed);
    Elsewhere(
        [this] {
          const auto journal = Books();
          fleet::RunOptions options;
          options.watch.begun = [made = 0](std::size_t) mutable {
            if (++made == 3) kill(getpid(), SIGKILL);  // both are planned, none is made
          };
          options.fan.forks = 1;
          fleet::Run run(journal.get(), targets_, options);
          run.Plan(Edits());
          run.Make();
        },
        [](pid_t) {});
    ASSERT_EQ(journal_->Unfinished().size(), 1U);
    const fleet::RunHead head = journal_->Unfinished()[0];
    const fleet::RecoverOptions recover;
    const fleet::RunReport report = resumed ? fleet::ResumeRun(*journal_, head.id, recover)
                                            : fleet::UndoRun(*journal_, head.id, recover);
    EXPECT_EQ(report.state, resumed ? RunState::kDone : RunState::kUndone) << report.reason;
    const std::string state = resumed ? kAfter : kBefore;
    for (std::size_t i = 0; i < 2; ++i) {
      EXPECT_EQ(State(i), state);
      const std::string refused = SendLate(i, head);
      EXPECT_NE(refused.find("epoch"), std::string::npos) << refused;
      EXPECT_EQ(State(i), state) << refused;
      EXPECT_EQ(nodes_[i]->Exec("ls -A /srv/t; cd /var/lib/brefir/runs; ls -d */made || true"),
                "file\nlog\n");
      nodes_[i]->Exec("echo one >/srv/t/file; : >/srv/t/log");
    }
  }
}

/// It stands still between two commands, and comes to itself when another panel has undone its run.
TEST_F(RunSchedulesTest, WhoWasTakenOverHasNoEffect) {
  Elsewhere(
      [this] {
        const auto journal = Books();
        fleet::RunOptions options;
        bool makes = false;
        options.fan.forks = 1;
        options.watch.phase = [&](fleet::RunPhase phase, std::size_t) {
          makes = phase == fleet::RunPhase::kMake;
        };
        options.watch.begun = [&](std::size_t i) {
          if (makes && i == 1) raise(SIGSTOP);
        };
        fleet::Run run(journal.get(), targets_, options);
        run.Plan(Edits());
        const std::string error = support::ErrorOf([&] { run.Make(); });
        pnl_file::Write("/srv/panel/error", error);
      },
      [this](pid_t pid) {
        waitpid(pid, nullptr, WUNTRACED);
        EXPECT_EQ(State(0), kAfter);
        EXPECT_EQ(support::ErrorOf([&] { fleet::UndoRun(*journal_, 1, {}); }, {"value"}),
                  "run_busy 1 " + std::to_string(pid));
        fleet::RecoverOptions options;
        options.take_over = true;
        EXPECT_EQ(fleet::UndoRun(*journal_, 1, options).state, RunState::kUndone);
        kill(pid, SIGCONT);
      });
  EXPECT_EQ(pnl_file::Read("/srv/panel/error"), "run_lost 1");
  EXPECT_EQ(journal_->Runs()[0].state, RunState::kUndone);
  EXPECT_EQ(State(0), "one\nran\nundone\n");
  EXPECT_EQ(State(1), kBefore);
}

/// Nobody knows whether the command had its effect: it is told, and not run again.
TEST_F(RunSchedulesTest, InterruptedCommandsAreNotRepeated) {
  const std::string slow = "echo ran >>/srv/t/log; sleep 5";
  Elsewhere(
      [&] {
        const auto journal = Books();
        fleet::RunOptions options;
        options.fan.forks = 1;
        options.watch.ended = [](std::size_t, const std::string& failure) {
          if (!failure.empty()) kill(getpid(), SIGKILL);
        };
        fleet::Run run(journal.get(), targets_, options);
        run.Plan(Edits(slow));
        run.Make();
      },
      [this](pid_t) {
        Await(0, "grep -q ran /srv/t/log");
        nodes_[0]->Reboot();
      });
  const fleet::RecoverOptions recover;
  const fleet::RunReport report = fleet::ResumeRun(*journal_, 1, recover);
  EXPECT_EQ(report.state, RunState::kUndone);
  EXPECT_NE(report.reason.find("whether it had its effect is not known"), std::string::npos)
      << report.reason;
  for (const std::size_t i : {0U, 1U}) EXPECT_EQ(State(i), "one\nran\nundone\n");
}

/// Two nodes that owe the same run something pay at the same time.
TEST_F(RunSchedulesTest, DebtsArePaidSideBySide) {
  fleet::RunOptions options;
  options.timeout = 2;
  options.watch.phase = [this](fleet::RunPhase phase, std::size_t) {
    if (phase != fleet::RunPhase::kCleanUp) return;
    for (const auto& node : nodes_) node->Kill();
  };
  fleet::Run run(journal_.get(), targets_, options);
  run.Plan(Edits());
  EXPECT_EQ(run.Make().nodes[1].state, NodeRunState::kCommitted);
  for (const auto& node : nodes_) node->Reboot();
  for (int i = 0; i < 2; ++i) {
    fleet::Run next(journal_.get(), targets_, {});
    next.Plan(std::vector<fleet::Edit>{});
    for (const std::size_t at : {0U, 1U})
      EXPECT_FALSE(next.Failure(at)) << next.Failure(at)->param("message");
    EXPECT_TRUE(journal_->Debts().empty());
  }
}

}  // namespace
