// The journal of runs, on both databases.

#include "fleet/journal.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "brefir/str_utils.h"
#include "support/error_of.h"
#include "support/faults.h"
#include "support/postgres.h"
#include "support/temp_dir.h"

namespace {

using fleet::Journal;
using fleet::NodeRunState;
using fleet::PathState;
using fleet::RunHead;
using fleet::RunNode;
using fleet::RunState;
using fleet::RunStep;
using fleet::StepForm;
using support::ErrorOf;

class JournalTest : public support::TempDir, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    address_ = OnPostgres() ? support::NewPostgresSchema(Root().filename()) : "sqlite:runs.db";
    if (address_.empty()) GTEST_SKIP() << "no PostgreSQL server is installed";
  }

  static bool OnPostgres() { return GetParam() == std::string("postgres"); }
  std::shared_ptr<pnl_db::Cache> Open() const { return pnl_db::Cache::Open(address_); }

  std::string address_;
};

INSTANTIATE_TEST_SUITE_P(Both, JournalTest, testing::Values("sqlite", "postgres"),
                         [](const auto& each) { return each.param; });

std::string Text(const RunNode& node) {
  std::string text = node.name + "|" + node.machine + "|" + node.login + "|" + ToText(node.state) +
                     "|" + node.reason + "\n";
  for (const RunStep& step : node.steps) text += step.Text() + "\n";
  return text;
}

std::string States(const Journal& journal, std::int64_t run) {
  const fleet::BookedRun booked = journal.Find(run);
  std::string text = ToText(booked.head.state) + ":";
  for (const RunNode& node : booked.nodes) text += " " + node.name + " " + ToText(node.state);
  return text;
}

std::vector<RunNode> Nodes(const std::vector<std::string>& names) {
  std::vector<RunNode> nodes;
  nodes.reserve(names.size());
  for (const std::string& name : names) nodes.push_back({name, "id-" + name, "root@" + name});
  return nodes;
}

TEST_P(JournalTest, KeepsEveryByte) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  PathState old = PathState::File(bytes);
  old.mode = 04755;
  old.owner = "0:7";
  PathState link{.kind = fleet::PathKind::kLink, .target = bytes};
  const RunStep steps[] = {
      {.object = "/" + bytes, .before = old, .after = link, .by_lines = true},
      {.form = StepForm::kMove, .object = "/a", .before = old, .from = "/" + bytes},
      {.form = StepForm::kCopy, .object = "/a", .after = old, .from = "/b", .source = bytes},
      {.form = StepForm::kParameter, .object = "vm.x", .value_before = bytes, .value = "0 1"},
      {.object = "/large", .after = PathState::File(std::string(1 << 20, '\x80'))},
      {.object = "/key", .after = PathState::File("the secret"), .secret = true},
      {.form = StepForm::kCommand, .object = "x", .make = bytes, .undo = bytes, .no_undo = bytes},
      {.form = StepForm::kService, .object = "y", .make = "z", .follows = {bytes, " ", "a"}},
      {.form = StepForm::kPackages,
       .object = "p",
       .packages = {{bytes, {"", bytes}}, {"a|b", {"1|2", ""}}}},
      {.form = StepForm::kLate, .object = bytes},
  };
  Journal journal(Open());
  std::vector<RunNode> nodes = Nodes({"z", "fe80::1%" + bytes.substr(1), "a"});
  nodes[0].login = bytes;
  nodes[0].steps = nodes[1].steps = {std::begin(steps), std::end(steps)};
  const RunHead begun = journal.Begin(
      {.command = "write\x1b \xc3\xa4\xff", .policy = "each", .keep_undo = true}, nodes);
  const auto changed = [&](std::size_t i, NodeRunState state, const std::string& reason) {
    nodes[i].state = state;
    nodes[i].reason = reason;
    return fleet::NodeOutcome{nodes[i].name, state, reason};
  };
  journal.Note(begun, {{"a", NodeRunState::kMaking}});
  journal.Note(begun,
               {{"a", NodeRunState::kMade}, changed(2, NodeRunState::kOwed, "no way\u00e4")});
  journal.Note(begun, {changed(1, NodeRunState::kDone, "")});
  nodes[1].steps.erase(nodes[1].steps.begin(), nodes[1].steps.end() - 2);
  nodes[2].steps = nodes[0].steps;
  for (const std::size_t i : {1U, 2U}) journal.SetSteps(begun, nodes[i].name, nodes[i].steps);
  EXPECT_EQ(ErrorOf([&] { journal.SetSteps(begun, "b", {}); }, {"value"}), "missed node b");
  EXPECT_EQ(ErrorOf(
                [&] {
                  journal.Note(begun, {{"b", NodeRunState::kDone}, {"a", {}}});
                },
                {"value"}),
            "missed node b");
  EXPECT_FALSE(journal.Move(begun, RunState::kCommitted, RunState::kDone));
  EXPECT_TRUE(journal.Move(begun, RunState::kMaking, RunState::kPartly));

  const fleet::BookedRun found = Journal(Open()).Find(begun.id);
  ASSERT_EQ(found.nodes.size(), nodes.size());
  for (std::size_t i = 0; i < nodes.size(); ++i) EXPECT_EQ(Text(found.nodes[i]), Text(nodes[i]));
  EXPECT_EQ(Text(found.nodes[0]).find(str::Replace("the secret", " ", "%20")), std::string::npos);
  const RunHead& head = found.head;
  EXPECT_EQ(head.command, "write\\x1b \u00e4\ufffd");
  EXPECT_TRUE(head.keep_undo && head.token == begun.token && head.token.size() == 8);
  EXPECT_TRUE(head.state == RunState::kPartly && head.ended >= head.begun && head.begun > 0);
  EXPECT_TRUE(head.owner == getpid() && head.owner_start > 0 && !head.boot.empty());
  EXPECT_FALSE(head.host.empty() || head.user.empty());
  EXPECT_EQ(ErrorOf([&] { (void)journal.Find(99); }, {"value"}), "missed run 99");
}

TEST_P(JournalTest, UnfinishedRunsKeepTheirNodes) {
  const auto node = [](const char* name, const char* machine, NodeRunState state = {}) {
    return RunNode{name, machine, "", state};
  };
  constexpr auto kWaiting = NodeRunState::kWaiting;
  const std::string part = " is part of run 1, which is unfinished: brefirctl run resume 1, or ";
  // The first run's node, the second one's, and the beginning of the message.
  const std::tuple<RunNode, RunNode, std::string> cases[] = {
      {node("a", "1", kWaiting), node("a", "1", kWaiting), "a" + part},
      {node("a", "1", NodeRunState::kOwed), node("b", "1", kWaiting),
       "b is the same machine as a, which" + part},
      {node("a", "", kWaiting), node("a", "1", kWaiting), "a" + part},
      {node("a", "1", NodeRunState::kConflict), node("a", "", kWaiting), "a" + part},
      {node("a", "1", kWaiting), node("a", "2", kWaiting), ""},
      {node("a", "", kWaiting), node("b", "", kWaiting), ""},
      {node("a", "1", kWaiting), node("a", "1", NodeRunState::kUnchanged), ""},
      {node("a", "1", NodeRunState::kUnchanged), node("a", "1", kWaiting), ""},
      {node("a", "1", NodeRunState::kUndone), node("a", "1", kWaiting), ""},
      {node("a", "1", NodeRunState::kWrittenOff), node("a", "1", kWaiting), ""},
  };
  Journal journal(Open());
  for (const auto& [first, second, busy] : cases) {
    const std::string id = str::Str(journal.Begin({}, {node("o", "o"), first}).id);
    const auto error = support::Caught([&, own = second] { journal.Begin({}, {own}); });
    const auto text = error.value_or(pnl_err::Error(""))
                          .param("message")
                          .substr(0, busy.size() + id.size() * 2 - 2);
    EXPECT_EQ(text, str::Replace(busy, "1", id));
    EXPECT_EQ(error ? error->type() + error->object() : "",
              busy.empty() ? "" : fleet::kRunBusy + id);
    for (const RunHead& run : journal.Unfinished())
      EXPECT_TRUE(journal.Move(run, RunState::kMaking, RunState::kDone));
  }

  // A run that is undone takes its nodes again.
  const RunHead old = journal.Begin({}, Nodes({"x", "y"}));
  journal.Note(old, {{"x", NodeRunState::kDone}, {"y", NodeRunState::kUndone}});
  EXPECT_TRUE(journal.Move(old, RunState::kMaking, RunState::kDone));
  const RunHead next = journal.Begin({}, Nodes({"x", "z"}));
  const auto undo = [&] { EXPECT_TRUE(journal.Move(old, RunState::kDone, RunState::kUndoing)); };
  EXPECT_EQ(ErrorOf(undo, {"value"}), "run_busy " + str::Str(next.id) + " x");
  EXPECT_EQ(States(journal, old.id), "done: x done y undone");
  EXPECT_TRUE(journal.Move(next, RunState::kMaking, RunState::kUndone));
  undo();
  EXPECT_EQ(States(journal, old.id), "undoing: x made y undone");
  EXPECT_EQ(journal.Find(old.id).head.ended, 0);
  EXPECT_EQ(ErrorOf([&] { journal.Begin({}, Nodes({"x"})); }), "run_busy " + str::Str(old.id));
  journal.Begin({}, Nodes({"y"}));
}

TEST_P(JournalTest, OneOfTwoTakesTheNode) {
  const Journal reader(Open());
  for (int round = 0; round < 10; ++round) {
    std::atomic<int> won = 0;
    const auto begin = [&](const char* own) {
      Journal journal(Open());
      won += ErrorOf([&] { journal.Begin({}, Nodes({own, str::Str(round)})); }).empty() ? 1 : 0;
    };
    std::thread other(begin, "a");
    begin("b");
    other.join();
    EXPECT_EQ(won, 1);
    Open()->Execute("update runs set state = 'done'");
  }
}

TEST_P(JournalTest, ARunIsTakenOverFromTheDead) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t owner = fork();
  if (owner == 0) {
    const std::int64_t id = Journal(Open()).Begin({}, Nodes({"a"})).id;
    if (write(ends[1], &id, sizeof id) == sizeof id) pause();
    _exit(1);
  }
  std::int64_t id = 0;
  ASSERT_EQ(read(ends[0], &id, sizeof id), static_cast<ssize_t>(sizeof id));
  const auto db = Open();
  Journal journal(db);
  const RunHead old = journal.Find(id).head;
  const auto taken = [&] { return ErrorOf([&] { journal.TakeOver(id, false); }, {"value"}); };
  const std::string busy = "run_busy " + str::Str(id) + " " + std::to_string(owner);
  EXPECT_EQ(taken(), busy);
  EXPECT_EQ(ErrorOf([&] { journal.Begin({}, Nodes({"a"})); }), "run_busy " + str::Str(id));
  const auto with = [&](const std::string& change) { db->Execute("update runs set " + change); };
  with("owner_start = owner_start + 1");  // another process has the pid
  EXPECT_EQ(taken(), "");
  with("owner_start = " + str::Str(old.owner_start) + ", epoch = 1, owner = " + str::Str(owner));
  EXPECT_EQ(taken(), busy);
  kill(owner, SIGKILL);
  siginfo_t end;
  EXPECT_EQ(waitid(P_PID, static_cast<id_t>(owner), &end, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(taken(), "");  // nobody has waited for it yet
  waitpid(owner, nullptr, 0);
  with("epoch = 1, owner_host = 'elsewhere', owner = " + str::Str(owner));
  EXPECT_EQ(taken(), busy);
  const RunHead mine = journal.TakeOver(id, true);
  EXPECT_EQ(mine.epoch, 2);
  EXPECT_EQ(mine.owner, getpid());

  const std::string lost = "run_lost " + str::Str(id);
  EXPECT_EQ(ErrorOf([&] { journal.Note(old, {{"a", NodeRunState::kMade}}); }), lost);
  EXPECT_EQ(ErrorOf([&] { journal.Move(old, RunState::kMaking, RunState::kUndoing); }), lost);
  EXPECT_EQ(ErrorOf([&] { journal.SetSteps(old, "a", {{.object = "/a"}}); }), lost);
  EXPECT_EQ(ErrorOf([&] { journal.RaiseEpoch(old); }), lost);
  EXPECT_TRUE(journal.Find(id).nodes[0].steps.empty());
  fleet::OutcomeWriter loser(journal, old);
  loser.Add({"a", NodeRunState::kMade});
  EXPECT_EQ(ErrorOf([&] { loser.Flush(); }), lost);
  EXPECT_EQ(States(journal, id), "making: a waiting");
  fleet::OutcomeWriter writer(journal, mine);
  for (int i = 0; i < 500; ++i)
    writer.Add({"a", i < 499 ? NodeRunState::kMaking : NodeRunState::kMade});
  writer.Flush();
  EXPECT_EQ(States(journal, id), "making: a made");
}

TEST_P(JournalTest, ThePastAndItsDebts) {
  const auto db = Open();
  Journal journal(db);
  std::vector<RunNode> nodes = Nodes({"a", "b", "c"});
  nodes[0].steps = {{.object = "/x"}, {.form = StepForm::kMove, .object = "/y", .from = "/z"}};
  std::vector<std::int64_t> runs;
  for (const auto state : {NodeRunState::kDone, NodeRunState::kOwed, NodeRunState::kUndone}) {
    const RunHead run = journal.Begin({.command = "command " + ToText(state)}, nodes);
    journal.Note(run, {{"a", state}, {"b", NodeRunState::kUnchanged}});
    EXPECT_TRUE(journal.Move(run, RunState::kMaking, RunState::kPartly));
    runs.push_back(run.id);
    if (runs.size() == 2) nodes[0].steps.pop_back();
  }
  const std::tuple<const char*, const char*, std::size_t, std::size_t> cases[] = {
      {"a", "", 3, 5},   {"a", "/x", 3, 3}, {"a", "/y", 2, 2}, {"a", "/z", 2, 2},
      {"a", "/q", 0, 0}, {"b", "", 0, 0},   {"c", "", 0, 0},
  };
  for (const auto& [node, path, count, steps] : cases) {
    const auto past = journal.History(node, path);
    EXPECT_EQ(past.size(), count) << node << path;
    std::size_t found = 0;
    for (const Journal::Past& each : past) found += each.steps.size();
    EXPECT_EQ(found, steps) << node << path;
    if (count == 3) {
      EXPECT_EQ(past[0].run.id, runs[2]);
    }
  }
  const auto newest = journal.History("a", "/y", 1);
  ASSERT_EQ(newest.size(), 1U);
  EXPECT_EQ(newest[0].run.id, runs[1]);
  EXPECT_EQ(journal.History("a", "", 2).size(), 2U);
  const auto changes = journal.LastChanges();
  ASSERT_EQ(changes.size(), 1U);
  EXPECT_EQ(changes.at("a").what, "undo of command undone");
  EXPECT_GT(changes.at("a").time, 0);
  // An older run may end last.
  db->Execute("update runs set ended = ended + 5 where id = ?", {str::Str(runs[1])});
  EXPECT_EQ(journal.LastChanges().at("a").what, "command owed");
  const auto debts = journal.Debts();
  ASSERT_EQ(debts.size(), 1U);
  EXPECT_EQ(debts[0].run, runs[1]);
  EXPECT_EQ(debts[0].node.steps.size(), 2U);

  const std::time_t later = std::time(nullptr) + 10;
  EXPECT_EQ(journal.Prune(later - 20), 0);
  EXPECT_EQ(journal.Prune(later), 2);
  EXPECT_EQ(journal.History("a").size(), 1U);
  EXPECT_FALSE(journal.WriteOff(runs[1], "b", "") || journal.WriteOff(runs[0], "a", ""));
  EXPECT_TRUE(journal.WriteOff(runs[1], "a", "scrapped"));
  const RunHead open = journal.Begin({}, nodes);
  EXPECT_EQ(journal.Prune(later), 1);
  EXPECT_EQ(journal.Runs().at(0).id, open.id);
}

// Whatever answer gets lost, what is told is what the journal has.
TEST_P(JournalTest, LostAnswersAreAskedForAgain) {
  if (!OnPostgres() || !support::FaultsWork()) GTEST_SKIP();
  Journal journal(Open());
  for (int nth = 1;; ++nth) {
    Journal writer(Open());
    RunHead run;
    bool moved = false;
    const auto end = support::FailNth(nth, ECONNRESET, {SYS_recvfrom}, [&] {
      run = writer.Begin({}, Nodes({"a"}));
      writer.SetSteps(run, "a", {{.object = "/a"}});
      writer.Note(run, {{"a", NodeRunState::kMade}});
      moved = writer.Move(run, RunState::kMaking, RunState::kDone);
    });
    EXPECT_NE(end, support::End::kThrew) << nth;
    EXPECT_TRUE(moved) << nth;
    EXPECT_EQ(States(journal, run.id), "done: a made") << nth;
    EXPECT_EQ(journal.Find(run.id).nodes[0].steps.size(), 1U) << nth;
    EXPECT_TRUE(journal.Unfinished().empty()) << nth;
    if (end == support::End::kClean) break;
  }
}

TEST(RunStep, ReadsOnlySteps) {
  const std::string good = "form=path object=/a before=missing after=missing";
  EXPECT_EQ(RunStep::Read(good).Text(), good);
  for (const std::string line :
       {"", "x", "=", "form=path", "form=path object= before=missing after=missing",
        "form=walk object=/a before=missing after=missing", "form=path object=/a before=missing",
        "form=path object=/%4 before=missing after=missing",
        "form=move object=/a before=missing after=missing",
        "form=path object=/a before=file before.size=1 after=missing",
        "form=path object=/a before=file before.size=-1 before.sum=1 after=missing",
        "form=path object=/a before=file before.size=1 before.sum=4294967296 after=missing",
        "form=path object=/a before=missing before.mode=8 after=missing",
        "form=path object=/a before=missing before.mode=200000 after=missing",
        "form=path object=/a object=/b before=missing after=missing"})
    EXPECT_EQ(ErrorOf([&] { (void)RunStep::Read(line); }), "step read") << line;
}

}  // namespace
