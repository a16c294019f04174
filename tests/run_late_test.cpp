// Runs whose steps bring what later ones edit, steps that cannot be undone, and sshd's configuration.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "fleet/edits.h"
#include "fleet/journal.h"
#include "fleet/run.h"
#include "fleet/saved_plan.h"
#include "pnl/file.h"
#include "support/error_of.h"
#include "support/lab.h"

namespace {

using fleet::Edit;
using fleet::RunState;
using support::LabNode;

Edit Command(const std::string& command, const std::string& undo) {
  return {.look = [](fleet::Looks& /*looks*/) {},
          .make = [=](fleet::Draft& draft) { draft.Run(command, command, undo); },
          .words = "node exec"};
}

Edit Key(const std::string& path, const std::string& value) {
  Edit edit = fleet::SetKeyEdit(path, "a", value);
  edit.words = "config set " + path;
  return edit;
}

Edit Text(const std::string& path, const std::string& text) {
  return {.look = [=](fleet::Looks& looks) { looks.files.insert(path); },
          .make = [=](fleet::Draft& draft) { draft.Write(path, text); },
          .words = "node write " + path};
}

/// Needs the file, and then runs what nothing takes back.
Edit Irreversible(const std::string& path) {
  return {.look = [=](fleet::Looks& looks) { looks.texts.insert(path); },
          .make =
              [=](fleet::Draft& draft) {
                if (!draft.Text(path)) draft.Absent(path, "there is no '" + path + "'");
                draft.Run("echo", "echo out", "");
              },
          .words = "node exec echo"};
}

const char* const kBring = "mkdir /srv/new && echo a=1 >/srv/new/conf && echo more >>/srv/t/file";
const char* const kTakeBack = "rm -r /srv/new && echo one >/srv/t/file";

/// A file that a command changes afterwards, a directory that it brings, edits of what is in there.
std::vector<Edit> Chain() {
  return {Text("/srv/t/file", "two\n"),
          Command(kBring, "rm -r /srv/new && echo two >/srv/t/file"),
          Key("/srv/new/conf", "2"),
          Command("mkdir /srv/new2; cp /srv/new/conf /srv/new2", "rm -r /srv/new2"),
          Text("/srv/new2/conf", "three\n"),
          Text("/srv/t/last", "four\n")};
}

class RunLateTest : public support::LabTest {
 protected:
  void SetUp() override {
    support::LabTest::SetUp();
    std::filesystem::remove_all("/srv/panel");
    pnl_file::MkDir("/srv/panel");
    journal_ = Books();
  }

  static std::unique_ptr<fleet::Journal> Books() {
    return std::make_unique<fleet::Journal>(pnl_db::Cache::Open("sqlite:/srv/panel/fleet.db"));
  }

  void Start(std::size_t count, const support::LabOptions& options = {}) {
    while (nodes_.size() < count) {
      nodes_.push_back(std::make_unique<LabNode>("debian12", options));
      nodes_.back()->Exec("mkdir -p /srv/t; echo one >/srv/t/file");
      targets_.push_back({"n" + std::to_string(nodes_.size()), nodes_.back()->Login()});
      targets_.back().login->name = targets_.back().name;
    }
  }

  std::string Trees() const {
    std::string trees;
    for (const auto& node : nodes_)
      trees += node->Exec(
          "cd /srv; find . -exec stat -c '%n %F %a %u:%g' {} + | sort; find . -type f -exec cksum "
          "{} + | sort -k3; find /etc/ssh /var/lib -name '.brefir*' -o -path "
          "'*/brefir/runs/*/[!em]*' -o -path '*/brefir/runs/*/made'");
    return trees;
  }

  fleet::RunReport Make(const std::vector<Edit>& edits, const std::string& policy = "") {
    return Make([&](std::size_t) { return edits; }, policy);
  }
  fleet::RunReport Make(const std::function<std::vector<Edit>(std::size_t)>& edits,
                        const std::string& policy = "", bool irreversible = false) {
    fleet::RunOptions options;
    if (!policy.empty()) options.policy = fleet::RunPolicy::Read(policy);
    options.policy.is_default = policy.empty();
    options.irreversible = irreversible;
    fleet::Run run(journal_.get(), targets_, options);
    run.Plan(edits);
    return run.Make();
  }

  static std::string Words(const fleet::RunReport& report) {
    std::string words = ToText(report.state) + ":";
    for (const fleet::NodeReport& node : report.nodes)
      words += " " + ToText(node.state) + (node.reason.empty() ? "" : "(" + node.reason + ")");
    return words;
  }

  std::unique_ptr<fleet::Journal> journal_;
  std::vector<std::unique_ptr<LabNode>> nodes_;
  std::vector<fleet::RunTarget> targets_;
};

TEST_F(RunLateTest, IsPlannedWhenItsTurnComes) {
  Start(1);
  const std::string before = Trees();
  fleet::Run run(nullptr, targets_, {});
  run.Plan(Chain());
  EXPECT_TRUE(run.Changes());
  const std::string plan = WordsOf(PlanOf("", run.Steps(0)));
  for (const char* late : {"config set /srv/new/conf", "node write /srv/new2/conf"})
    EXPECT_NE(plan.find(std::string(late) + " (planned when its turn comes)"), std::string::npos)
        << plan;
  fleet::RunReport report = Make(Chain());
  EXPECT_EQ(Words(report), "done: done");
  EXPECT_EQ(nodes_[0]->Exec("cd /srv; cat new/conf new2/conf t/*"),
            "a=2\nthree\ntwo\nmore\nfour\n");
  EXPECT_EQ(journal_->Find(1).nodes[0].steps.size(), 6U);
  const fleet::BookedRun booked = journal_->Find(1);
  for (const fleet::RunStep& step : booked.nodes[0].steps)
    EXPECT_NE(step.form, fleet::StepForm::kLate);
  EXPECT_EQ(Words(fleet::UndoRun(*journal_, 1, {})), "undone: undone");
  EXPECT_EQ(Trees(), before);

  const std::tuple<std::vector<Edit>, const char*> cases[] = {
      {{Key("/srv/new/conf", "2"), Command("true", "true")},
       "undone: unchanged(there is no '/srv/new/conf')"},
      {{Command("true", "true"), Key("/srv/new/conf", "2"), Command("false", "true")},
       "undone: undone(there is no '/srv/new/conf')"},
      {{Command(kBring, kTakeBack), Key("/srv/new/conf", "2"), Command("echo no; exit 3", "true")},
       "undone: undone('echo no; exit 3' failed: exit code 3: no)"},
      {{Command(kBring, kTakeBack), Irreversible("/srv/new/conf")},
       "undone: undone('echo' cannot be undone: a command without --undo CMD; give it --undo CMD, "
       "or choose --policy each or --irreversible)"},
      {{Command(kBring, kTakeBack), Key("/srv/new/conf", "1")}, "done: done"},
  };
  for (const auto& [edits, words] : cases) {
    report = Make(edits);
    EXPECT_EQ(Words(report), words);
    if (report.state == RunState::kDone) fleet::UndoRun(*journal_, report.id, {});
    EXPECT_EQ(Trees(), before) << words;
  }
  report = Make({Command(kBring, kTakeBack), Irreversible("/srv/new/conf")}, "each");
  EXPECT_EQ(Words(report), "done: done");
  EXPECT_EQ(report.nodes[0].output, "out\n");
}

TEST_F(RunLateTest, WhoeverDiesItIsAllOrNone) {
  Start(2);
  const std::string before = Trees();
  std::string after;
  std::set<std::string> ends;
  bool killed = true;
  for (int at = 1; killed; ++at) {
    SCOPED_TRACE(at);
    const bool each = at % 2 == 0;
    const pid_t pid = fork();
    if (pid == 0) {
      std::atomic<int> events = 0;
      const auto event = [&] {
        if (++events == at) kill(getpid(), SIGKILL);
      };
      const auto journal = Books();
      fleet::RunOptions options;
      options.policy.each = each;
      options.watch.begun = [&](std::size_t node) {
        event();
        usleep(node == 0 ? 0 : 300'000);  // so that one node may be done, and the other not
      };
      options.watch.ended = [&](std::size_t, const std::string&) { event(); };
      std::vector<Edit> edits = Chain();
      for (Edit& edit : edits)
        edit.look = [&event, look = edit.look](fleet::Looks& looks) { event(), look(looks); };
      fleet::Run run(journal.get(), targets_, options);
      run.Plan(edits);
      run.Make();
      _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    killed = WIFSIGNALED(status);
    for (const fleet::RunHead& run : journal_->Unfinished()) {
      const fleet::RunReport report = fleet::ResumeRun(*journal_, run.id, {});
      const std::string gone =
          "' was to be planned when its turn came, and what began the run is gone";
      EXPECT_TRUE(report.state == RunState::kDone || each || report.reason.ends_with(gone));
      for (const fleet::NodeReport& node : report.nodes)
        EXPECT_TRUE(!each || node.changed || node.reason.ends_with(gone)) << node.reason;
      ends.insert(ToText(report.state));
    }
    if (journal_->Runs().empty()) continue;
    const fleet::RunHead last = journal_->Runs()[0];
    if (last.state == RunState::kDone) {
      if (after.empty()) after = Trees();
      EXPECT_EQ(Trees(), after);
    }
    EXPECT_EQ(fleet::UndoRun(*journal_, last.id, {}).state, RunState::kUndone);
    EXPECT_EQ(Trees(), before);
    ASSERT_LT(at, 60);
  }
  EXPECT_EQ(ends, (std::set<std::string>{"done", "partly", "undone"}));
}

/// A command that nothing takes back, and one that fails on the second node.
TEST_F(RunLateTest, WhatCannotBeUndoneDecidesThePolicy) {
  Start(2);
  const auto edits = [](std::size_t i) {
    return std::vector<Edit>{Text("/srv/t/new", "x"), Command("echo stay >/srv/stay", ""),
                             Command(i == 1 ? "false" : "true", "true")};
  };
  EXPECT_EQ(support::ErrorOf([&] { Make(edits, "all-or-none"); }, {"message"}),
            "irreversible n1 n1: 'echo stay >/srv/stay' cannot be undone: a command without --undo "
            "CMD; give it --undo CMD, or choose --policy each or --irreversible");
  EXPECT_TRUE(journal_->Runs().empty());
  const std::string stays = "'echo stay >/srv/stay' cannot be undone: a command without --undo CMD";
  const std::string failed = "conflict('false' failed: exit code 1; " + stays + ")";
  const std::tuple<const char*, bool, const char*, std::string> cases[] = {
      {"", false, "each", "partly: done " + failed},
      {"each", false, "each", "partly: done " + failed},
      {"all-or-none", true, "all-or-none", "partly: conflict(" + stays + ") " + failed},
      {"max-failed:1", true, "all-or-none,max-failed:1", "partly: done " + failed},
  };
  for (const auto& [policy, irreversible, booked, words] : cases) {
    SCOPED_TRACE(words);
    const fleet::RunReport report = Make(edits, policy, irreversible);
    EXPECT_EQ(Words(report), words);
    EXPECT_EQ(journal_->Find(report.id).head.policy, booked);
    EXPECT_EQ(Words(fleet::UndoRun(*journal_, report.id, {})),
              "partly: conflict(" + stays + ") conflict(" + stays + ")");
    for (const auto& node : nodes_)
      EXPECT_EQ(node->Exec("cat /srv/stay; rm /srv/stay; ls /srv/t"), "stay\nfile\n");
    for (const char* node : {"n1", "n2"})
      EXPECT_TRUE(journal_->WriteOff(report.id, node, "it may stay"));
  }
  // What was never begun needs no undo.
  const fleet::RunReport report = Make({Command("false", "true"), Command("echo", "")}, "");
  EXPECT_EQ(report.nodes[0].state, fleet::NodeRunState::kUndone) << Words(report);
}

// A command that never came to a node is not undone there, even if the others were committed.
TEST_F(RunLateTest, WhatNeverBeganIsNotUndone) {
  Start(2);
  fleet::RunOptions options{.command = "one node is away"};
  options.policy.each = true;
  options.timeout = 3;
  options.watch.phase = [&](fleet::RunPhase phase, std::size_t) {
    if (phase == fleet::RunPhase::kMake) nodes_[1]->Kill();
  };
  fleet::Run run(journal_.get(), targets_, options);
  run.Plan({Command("touch /srv/t/made", "touch /srv/t/undone")});
  const fleet::RunReport report = run.Make();
  EXPECT_EQ(Words(report).substr(0, 18), "partly: done owed(");
  nodes_[1]->Reboot();
  const fleet::RecoverOptions recover;
  EXPECT_EQ(fleet::ResumeRun(*journal_, report.id, recover).nodes[1].state,
            fleet::NodeRunState::kUndone);
  EXPECT_EQ(nodes_[1]->Exec("ls /srv/t"), "file\n");
  // What was committed is.
  EXPECT_EQ(Words(fleet::UndoRun(*journal_, report.id, recover)).substr(0, 14), "undone: undone");
  EXPECT_EQ(nodes_[0]->Exec("ls /srv/t"), "file\nmade\nundone\n");
  EXPECT_EQ(nodes_[1]->Exec("ls /srv/t"), "file\n");
}

class SshdTest : public RunLateTest {
 protected:
  void NobodyIsLockedOut(bool systemd);
};

void SshdTest::NobodyIsLockedOut(bool systemd) {
  Start(1, {.sshd = {"Include /etc/ssh/sshd_config.d/*.conf"}, .systemd = systemd});
  const auto state = [&] {
    return nodes_[0]->Exec(
        "cksum /etc/ssh/sshd_config; ls -A /etc/ssh/sshd_config.d; grep ' 0A ' /proc/net/tcp | cut "
        "-c7-19");
  };
  const std::string before = Trees() + state();
  const std::string part = "/etc/ssh/sshd_config.d/part.conf";
  const std::string locked_out = "undone: undone(a fresh login failed after the change: ";
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"/etc/ssh/sshd_config", "Nothing\n",
       "undone: undone('/etc/ssh/sshd_config': sshd refuses it: "},
      {part, "Nothing\n", "undone: undone('check and reload sshd' failed: exit code 255: "},
      {part, "Port 23\n", locked_out},
      {part, "DenyUsers root\n", locked_out},
      {part, "Port 22\nPort 2222\n", "done: done"},
  };
  for (const auto& [path, text, words] : cases) {
    const fleet::RunReport report = Make({Text(path, text)});
    EXPECT_EQ(Words(report).substr(0, words.size()), words) << Words(report);
    if (report.state == RunState::kDone) {
      EXPECT_NE(state().find(":08AE"), std::string::npos) << state();
      EXPECT_EQ(Words(fleet::UndoRun(*journal_, report.id, {})), "undone: undone");
    }
    EXPECT_EQ(Trees() + state(), before) << text;
  }
}

TEST_F(SshdTest, IsReloadedByASignal) {
  NobodyIsLockedOut(false);
}

TEST_F(SshdTest, IsReloadedBySystemd) {
  if (!support::NodesRunSystemd()) GTEST_SKIP();
  NobodyIsLockedOut(true);
}

TEST_F(RunLateTest, SavedPlansHaveTheWords) {
  Start(1);
  const std::string before = Trees();
  fleet::Run plan(nullptr, targets_, {});
  plan.Plan(Chain());
  fleet::SavedPlan saved{.command = "apply"};
  saved.nodes.push_back(
      {"n1", plan.Machine(0), fleet::LoginText(targets_[0].login), plan.Steps(0)});
  saved = fleet::SavedPlan::Read(saved.Text(), "x.plan");
  fleet::Run run(journal_.get(), targets_, {});
  run.PlanAsSaved({saved.nodes[0].steps}, {saved.nodes[0].machine},
                  [](std::size_t, const fleet::RunStep& step) {
                    std::vector<Edit> edits = Chain();
                    return *std::find_if(edits.begin(), edits.end(), [&](const Edit& edit) {
                      return edit.words == step.object;
                    });
                  });
  ASSERT_EQ(run.Failed(), 0U);
  EXPECT_EQ(Words(run.Make()), "done: done");
  EXPECT_EQ(nodes_[0]->Exec("cd /srv; cat new/conf new2/conf t/*"),
            "a=2\nthree\ntwo\nmore\nfour\n");
  EXPECT_EQ(Words(fleet::UndoRun(*journal_, 1, {})), "undone: undone");
  EXPECT_EQ(Trees(), before);
}

}  // namespace
