#include "fleet/run.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <memory>

#include "fleet/journal.h"
#include "pnl/file.h"
#include "support/error_of.h"
#include "support/lab.h"

namespace {

using fleet::NodeRunState;
using fleet::RunState;
using support::LabNode;

/// A panel with a journal, and nodes with a file each.
class RunTest : public support::LabTest {
 protected:
  void SetUp() override {
    support::LabTest::SetUp();
    std::filesystem::remove_all("/srv/panel");
    pnl_file::MkDir("/srv/panel");
    db_ = pnl_db::Cache::Open("sqlite:/srv/panel/fleet.db");
    journal_ = std::make_unique<fleet::Journal>(db_);
  }

  void Start(std::size_t count) {
    while (nodes_.size() < count) {
      nodes_.push_back(std::make_unique<LabNode>());
      nodes_.back()->Exec("mkdir -p /srv/t/dir; echo one >/srv/t/file; chmod 640 /srv/t/file");
      targets_.push_back({"n" + std::to_string(nodes_.size()), nodes_.back()->Login()});
      targets_.back().login->name = targets_.back().name;
    }
  }

  /// Sums and attributes of all files, and what is left of runs.
  std::string Tree(std::size_t i) const {
    return nodes_[i]->Exec(
        "cd /srv/t && find . -exec stat -c '%n %F %a %u:%g' {} + | sort; find . -type f -exec "
        "cksum "
        "{} + | sort -k3; find /srv/t /var/lib -name '.brefir*' -o -path '*/brefir/runs/*/[!e]*'");
  }
  std::string Trees() const {
    std::string trees;
    for (std::size_t i = 0; i < nodes_.size(); ++i) trees += Tree(i);
    return trees;
  }

  /// Two files and a directory.
  static std::vector<fleet::Edit> Edits(const std::string& text = "two\n") {
    return {{.look =
                 [](fleet::Looks& looks) {
                   looks.files.insert("/srv/t/file");
                   looks.files.insert("/srv/t/made/new");
                   looks.files.insert("/srv/t/dir/last");
                   looks.missing.insert("/srv/t/made");
                 },
             .make =
                 [text](fleet::Draft& draft) {
                   draft.Write("/srv/t/file", text);
                   draft.MakeDirs("/srv/t/made");
                   draft.Write("/srv/t/made/new", "new\n");
                   draft.Write("/srv/t/dir/last", text);
                 }}};
  }

  fleet::RunReport Make(const fleet::RunPolicy& policy = {}) {
    fleet::RunOptions options;
    options.policy = policy;
    fleet::Run run(journal_.get(), targets_, options);
    run.Plan(Edits());
    return run.Make();
  }

  static std::string Words(const fleet::RunReport& report) {
    std::string words = ToText(report.state) + ":";
    for (const fleet::NodeReport& node : report.nodes) {
      words += " " + ToText(node.state);
      if (!node.reason.empty()) words += "(" + node.reason + ")";
    }
    return words;
  }

  std::shared_ptr<pnl_db::Cache> db_;
  std::unique_ptr<fleet::Journal> journal_;
  std::vector<std::unique_ptr<LabNode>> nodes_;
  std::vector<fleet::RunTarget> targets_;
};

TEST_F(RunTest, AllHaveItOrNone) {
  Start(3);
  const std::string before = Trees();
  fleet::RunReport report = Make();
  EXPECT_EQ(Words(report), "done: done done done");
  EXPECT_EQ(nodes_[2]->Exec("cat /srv/t/file /srv/t/made/new; stat -c %a /srv/t/file"),
            "two\nnew\n640\n");
  EXPECT_EQ(Words(Make()), "done: unchanged unchanged unchanged");
  EXPECT_EQ(Words(fleet::UndoRun(*journal_, report.id, {})), "undone: undone undone undone");
  EXPECT_EQ(Trees(), before);
  EXPECT_EQ(Words(fleet::UndoRun(*journal_, report.id, {})), "undone: undone undone undone");
  // One node fails at its last step, or is lost in the middle.
  nodes_[1]->Exec("mount -t tmpfs -o ro,mode=755 none /srv/t/dir");
  report = Make();
  EXPECT_EQ(Words(report),
            "undone: undone undone('/srv/t/dir/last': the temporary file beside it "
            "cannot be made) undone");
  EXPECT_EQ(Trees(), before);
  EXPECT_EQ(Words(Make({.max_failed = 1})),
            "partly: done undone('/srv/t/dir/last': the temporary "
            "file beside it cannot be made) done");
  EXPECT_EQ(fleet::UndoRun(*journal_, report.id + 1, {}).state, RunState::kUndone);
  EXPECT_EQ(Trees(), before);
}

/// Runs `work` in a process that is killed at event number `at`; returns whether it came so far.
bool Killed(int at,
            const std::function<void(fleet::RunWatch watch, fleet::Journal& journal)>& work) {
  const pid_t pid = fork();
  if (pid == 0) {
    std::atomic<int> events = 0;
    const auto event = [&] {
      if (++events == at) kill(getpid(), SIGKILL);
    };
    fleet::Journal journal(pnl_db::Cache::Open("sqlite:/srv/panel/fleet.db"));
    work({.phase = [&](fleet::RunPhase, std::size_t) { event(); },
          .begun = [&](std::size_t) { event(); },
          .ended = [&](std::size_t, const std::string&) { event(); }},
         journal);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) || status == 0);
  return WIFSIGNALED(status);
}

TEST_F(RunTest, WhateverDiesItIsAllOrNone) {
  Start(2);
  const std::string before = Trees();
  Make();
  const std::string after = Trees();
  ASSERT_EQ(Words(fleet::UndoRun(*journal_, 1, {})), "undone: undone undone");
  int made = 0;
  for (int at = 1;; ++at) {
    SCOPED_TRACE(at);
    const bool killed = Killed(at, [&](fleet::RunWatch watch, fleet::Journal& journal) {
      fleet::RunOptions options;
      options.watch = std::move(watch);
      fleet::Run run(&journal, targets_, options);
      run.Plan(Edits());
      run.Make();
    });
    const auto unfinished = journal_->Unfinished();
    if (!unfinished.empty() && at % 2 == 0) {  // who resumes is killed, too
      Killed(at % 5, [&](fleet::RunWatch watch, fleet::Journal& journal) {
        fleet::RecoverOptions options;
        options.watch = std::move(watch);
        fleet::ResumeRun(journal, unfinished[0].id, options);
      });
    }
    for (const fleet::RunHead& run : journal_->Unfinished())
      EXPECT_EQ(Words(fleet::ResumeRun(*journal_, run.id, {})), "done: done done");
    const fleet::RunHead last = journal_->Runs()[0];
    EXPECT_EQ(Trees(), last.state == RunState::kDone ? after : before);
    made += last.state == RunState::kDone ? 1 : 0;
    fleet::UndoRun(*journal_, last.id, {});
    EXPECT_EQ(Trees(), before);
    if (!killed) break;
    ASSERT_LT(at, 50);
  }
  EXPECT_GT(made, 5);
}

}  // namespace
