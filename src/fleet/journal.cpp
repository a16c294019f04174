#include "fleet/journal.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <limits>
#include <utility>

#include "fleet/journal_tables.h"
#include "fleet/own_user.h"
#include "fleet/run_owner.h"
#include "pnl/deadline.h"
#include "pnl/proc.h"

namespace fleet {
namespace {

using pnl_db::Transaction;

// Held by transactions that let a run take nodes: each has to see what the others have taken.
constexpr const char* kTaking = "runs";

/// The states in which its run has not changed a node.
std::string UntouchedStates() {
  return "(" + Literal(NodeRunState::kUnchanged) + ", " + Literal(NodeRunState::kWaiting) + ", " +
         Literal(NodeRunState::kBehind) + ")";
}

/// The states of nodes that an ended run is not done with.
std::string OpenStates() {
  return "(" + Literal(NodeRunState::kOwed) + ", " + Literal(NodeRunState::kCommitted) + ", " +
         Literal(NodeRunState::kBehind) + ", " + Literal(NodeRunState::kConflict) + ")";
}

std::string IdOf(std::int64_t run) {
  return str::Str(run);
}

// --- Lost connections

/// Whether the database could not be asked, or its answer was lost. The server may still be at work
/// for the lost connection, and hold its locks.
bool IsLost(const pnl_err::Error& error, bool again) {
  const std::string state = error.param("sqlstate");
  if (error.type() != "db") return false;
  return state.starts_with("08") || state.starts_with("57P") || (again && state == "55P03") ||
         (state.empty() && error.object() == "commit");
}

pnl_err::Error Unknown(std::int64_t run, const pnl_err::Error& error) {
  const std::string id = run == 0 ? "" : IdOf(run);
  const std::string which = run == 0 ? "a new run" : "run " + id;
  return pnl_err::Error(kRunUnknown, id)
      .add_param("message", "the connection to the journal was lost while it wrote about " + which +
                                ", so it is not known what it has: " + error.param("errmsg") +
                                "; when the database answers again: brefirctl run list");
}

/// Repeats `work` while the connection gets lost. Its argument says whether it is a repetition: an
/// earlier commit may then have succeeded.
template <class Work>
auto Lasting(std::int64_t run, const Work& work) {
  constexpr int kPause = 200;  // milliseconds
  const pnl_time::Deadline patience{std::chrono::seconds(Journal::kPatience)};
  bool unknown = false;
  for (bool again = false;; again = true) {
    try {
      return work(again);
    } catch (const pnl_err::Error& error) {
      const bool lost = IsLost(error, again);
      unknown = unknown || (lost && error.object() == "commit");
      if (unknown && error.type() == "db" && (!lost || patience.Passed()))
        throw Unknown(run, error);
      if (!lost || patience.Passed()) throw;
    }
    pnl_proc::Sleep(kPause);
  }
}

// --- Who has what

std::string OwnerText(const RunHead& run) {
  return "PID " + str::Str(run.owner) + " on " + run.owner_host;
}

pnl_err::Error TakenOver(const RunHead& run) {
  return pnl_err::Error(kTakenOver, IdOf(run.id))
      .add_param("message", "run " + IdOf(run.id) + " was taken over by another process (" +
                                OwnerText(run) + ")");
}

/// Throws unless the epoch is still that of `run`. Until the end of the transaction nobody else can
/// then write about the run.
void HoldRun(pnl_db::Cache& db, const RunHead& run) {
  if (db.Execute("update runs set epoch = epoch where id = ? and epoch = ?",
                 {IdOf(run.id), str::Str(run.epoch)}) == 0)
    throw TakenOver(FindHead(db, run.id));
}

/// `name` is what the other run calls the node.
pnl_err::Error Busy(const RunHead& other, const std::string& node, const std::string& name) {
  const std::string id = IdOf(other.id);
  std::string text = node == name ? node : node + " is the same machine as " + name + ", which";
  text += " is part of run " + id;
  if (LifeOfOwner(other) == OwnerLife::kLives) {
    text += ", on which " + OwnerText(other) + " still works: wait for its end";
  } else {
    text += ", which is unfinished: brefirctl run resume " + id + ", or brefirctl run undo " + id;
  }
  return pnl_err::Error(kRunBusy, id, node).add_param("message", text);
}

/// Throws when an unfinished run other than `own` has one of the nodes.
void RefuseBusy(pnl_db::Cache& db, std::int64_t own, const std::vector<RunNode>& nodes) {
  std::map<std::string, const RunNode*> by_machine;
  std::map<std::string, const RunNode*> by_name;
  for (const RunNode& node : nodes) {
    if (IsEnd(node.state)) continue;
    if (!node.machine.empty()) by_machine[node.machine] = &node;
    by_name[node.name] = &node;
  }
  const auto find = [](const auto& map, const std::string& key) {
    const auto found = map.find(key);
    return found == map.end() ? nullptr : found->second;
  };
  const std::string busy = "where n.state in " + BusyStates() +
                           " and n.run in (select id from runs where state in " +
                           UnfinishedStates() + ") and n.run <> ?";
  for (const auto& [run, other] : ReadNodes(db, With::kNoSteps, busy, {IdOf(own)})) {
    const RunNode* node = find(by_machine, other.machine);
    // A name is that of another machine meanwhile when both machines are known.
    if (node == nullptr) node = find(by_name, other.name);
    if (node == nullptr) continue;
    const bool both_known = !node->machine.empty() && !other.machine.empty();
    if (!both_known || node->machine == other.machine)
      throw Busy(FindHead(db, run), node->name, other.name);
  }
}

/// The error for outcomes of nodes that the run does not have.
pnl_err::Error Strangers(pnl_db::Cache& db, std::int64_t run,
                         const std::vector<NodeOutcome>& outcomes) {
  StringSet names;
  for (const NodeOutcome& outcome : outcomes) names.insert(outcome.node);
  for (const RunNode& node : NodesOf(db, run, With::kNoSteps)) names.erase(node.name);
  const std::string list = str::Join(names, ", ");
  return pnl_err::Missed("node", list)
      .add_param("message", "run " + IdOf(run) + " has no node " + list);
}

/// What ended comes back to life: other runs must not take its nodes meanwhile.
void TakeNodesAgain(pnl_db::Cache& db, std::int64_t run) {
  const std::string id = IdOf(run);
  db.Execute("update run_nodes set state = " + Literal(NodeRunState::kMade) +
                 " where run = ? and state = " + Literal(NodeRunState::kDone),
             {id});
  RefuseBusy(db, run, NodesOf(db, run, With::kNoSteps));
}

void RefuseLiving(const RunHead& run) {
  if (IsEnd(run.state)) return;
  const OwnerLife life = LifeOfOwner(run);
  if (life == OwnerLife::kOver) return;
  std::string text = "run " + IdOf(run.id) + " belongs to " + OwnerText(run);
  text += life == OwnerLife::kLives
              ? ", which still runs: wait for its end, or take the run over with --take-over"
              : "; whether it still runs cannot be seen from here: look there, and if it does not, "
                "take the run over with --take-over";
  throw pnl_err::Error(kRunBusy, IdOf(run.id), str::Str(run.owner)).add_param("message", text);
}

}  // namespace

bool IsEnd(RunState state) {
  return state == RunState::kDone || state == RunState::kUndone || state == RunState::kPartly;
}

bool IsEnd(NodeRunState state) {
  return state == NodeRunState::kUnchanged || state == NodeRunState::kDone ||
         state == NodeRunState::kUndone || state == NodeRunState::kWrittenOff;
}

bool HasFailed(NodeRunState state, bool has_reason) {
  switch (state) {
    case NodeRunState::kFailed:
    case NodeRunState::kConflict:
    case NodeRunState::kOwed:
    case NodeRunState::kBehind:
      return true;
    case NodeRunState::kUnchanged:
    case NodeRunState::kUndone:
      return has_reason;
    default:
      return false;
  }
}

Journal::Journal(std::shared_ptr<pnl_db::Cache> db) : db_(std::move(db)) {
  MakeRunTables(*db_);
}

// --- The owner writes

RunHead Journal::Begin(RunHead head, const std::vector<RunNode>& nodes) {
  constexpr std::size_t kToken = 4;  // bytes
  BecomeOwner(head);
  head.token = str::hex::Encode(str::Random(kToken));
  head.host = head.owner_host;
  head.user = FindOwnUser().name;
  head.begun = std::time(nullptr);
  head.ended = IsEnd(head.state) ? head.begun : 0;
  head.epoch = 1;
  return Lasting(0, [&](bool again) {
    Transaction transaction(*db_);
    transaction.Lock(kTaking);
    if (again) {
      auto written = ReadHeads(*db_, "where token = ?", {head.token});
      if (!written.empty()) return std::move(written.front());
    }
    RefuseBusy(*db_, 0, nodes);
    head.id = InsertHead(*db_, head);
    InsertNodes(*db_, head.id, nodes);
    transaction.Commit();
    return head;
  });
}

void Journal::Note(const RunHead& run, const std::vector<NodeOutcome>& outcomes) {
  std::map<std::string, const NodeOutcome*> last;
  for (const NodeOutcome& outcome : outcomes) last[Exact(outcome.node)] = &outcome;
  Arguments rows;
  for (const auto& [name, outcome] : last)
    rows.insert(rows.end(), {name, WordOf(outcome->state), Readable(outcome->reason)});
  const std::string now = str::Str(std::time(nullptr));
  Lasting(run.id, [&](bool) {
    Transaction transaction(*db_);
    HoldRun(*db_, run);
    std::int64_t written = 0;
    InGroups(rows, 3, [&](const std::string& values, Arguments args) {
      args.insert(args.begin(), now);
      args.push_back(IdOf(run.id));
      written += db_->Execute(
          "update run_nodes set noted = ?, state = o.column2, reason = o.column3 from (" + values +
              ") as o where name = o.column1 and run = ?",
          args);
    });
    if (written != static_cast<std::int64_t>(last.size())) throw Strangers(*db_, run.id, outcomes);
    transaction.Commit();
  });
}

void Journal::SetSteps(const RunHead& run, const std::string& node,
                       const std::vector<RunStep>& steps) {
  Lasting(run.id, [&](bool) {
    Transaction transaction(*db_);
    HoldRun(*db_, run);
    ReplaceSteps(*db_, run.id, node, steps);
    transaction.Commit();
  });
}

bool Journal::Move(const RunHead& run, RunState from, RunState to) {
  return Lasting(run.id, [&](bool again) {
    Transaction transaction(*db_);
    const bool revives = IsEnd(from) && !IsEnd(to);
    if (revives) transaction.Lock(kTaking);
    HoldRun(*db_, run);
    const RunState now = FindHead(*db_, run.id).state;
    if (now != from) return again && now == to;
    if (revives) TakeNodesAgain(*db_, run.id);
    const std::string time = str::Str(std::time(nullptr));
    db_->Execute("update runs set state = ?, ended = ? where id = ?",
                 {ToText(to), IsEnd(to) ? time : "0", IdOf(run.id)});
    if (to == RunState::kCommitted)
      db_->Execute("update runs set committed = ? where id = ?", {time, IdOf(run.id)});
    transaction.Commit();
    return true;
  });
}

RunHead Journal::TakeOver(std::int64_t id, bool force) {
  return Lasting(id, [&](bool) {
    Transaction transaction(*db_);
    RunHead run = FindHead(*db_, id);
    if (!force) RefuseLiving(run);
    const std::string before = str::Str(run.epoch++);
    BecomeOwner(run);
    const bool first =
        db_->Execute(
            "update runs set epoch = ?, owner = ?, owner_start = ?, owner_host = ?, "
            "owner_machine = ?, boot = ? where id = ? and epoch = ?",
            {str::Str(run.epoch), str::Str(run.owner), str::Str(run.owner_start),
             Exact(run.owner_host), run.owner_machine, run.boot, IdOf(id), before}) > 0;
    if (!first) throw TakenOver(FindHead(*db_, id));
    transaction.Commit();
    return run;
  });
}

std::int64_t Journal::RaiseEpoch(const RunHead& run) {
  return Lasting(run.id, [&](bool again) {
    Transaction transaction(*db_);
    const RunHead now = FindHead(*db_, run.id);
    const bool is_raised = again && now.epoch == run.epoch + 1 && IsOwn(now);
    if (is_raised) return now.epoch;
    HoldRun(*db_, run);
    db_->Execute("update runs set epoch = epoch + 1 where id = ?", {IdOf(run.id)});
    transaction.Commit();
    return run.epoch + 1;
  });
}

// --- Reading

std::vector<RunHead> Journal::Runs(std::int64_t most) const {
  return ReadHeads(*db_, "order by id desc limit ?", {str::Str(most)});
}

std::vector<RunHead> Journal::Unfinished() const {
  return ReadHeads(*db_, "where state in " + UnfinishedStates() + " order by id");
}

std::vector<RunHead> Journal::KeyRuns() const {
  return ReadHeads(*db_, "where key_change <> '' order by id");
}

bool Journal::Has(const std::string& name) const {
  const std::size_t end = name.find('-');
  if (end == std::string::npos) return false;
  const std::string id = str::Str(str::Int64(name.substr(0, end)));
  return name.starts_with(id + "-") &&
         !ReadHeads(*db_, "where id = ? and token = ?", {id, name.substr(end + 1)}).empty();
}

/// Calls `ask` with lists for "in (...)": a statement must not be too long.
static void InLists(const std::vector<std::int64_t>& ids,
                    const std::function<void(const std::string& list)>& ask) {
  constexpr std::size_t kMost = 1000;
  std::string list;
  std::size_t number = 0;
  for (const std::int64_t id : ids) {
    list = str::Append(list, IdOf(id), ", ");
    if (++number % kMost != 0 && number != ids.size()) continue;
    ask("(" + list + ")");
    list.clear();
  }
}

/// Adds what the runs of a list have.
static void AddCounts(pnl_db::Cache& db, const std::string& list,
                      std::map<std::int64_t, Journal::Counts>& counts) {
  const auto query = db.Select(
      "select n.run, n.state as node_state, r.ended <> 0 as over, n.reason <> '' as why, count(*) "
      "as number from run_nodes n join runs r on r.id = n.run where n.run in " +
      list + " group by 1, 2, 3, 4");
  const auto yes = [&](const char* column) {  // the databases print it differently
    const std::string value = query->AsString(column);
    return value == "1" || value == "t";
  };
  while (query->Next()) {
    Journal::Counts& run = counts[query->AsInt64("run")];
    const NodeRunState state = NodeStateOf(*query);
    const std::int64_t number = query->AsInt64("number");
    const bool committed = state == NodeRunState::kCommitted;
    run.nodes += number;
    if (committed || state == NodeRunState::kDone) run.changed += number;
    if (state == NodeRunState::kOwed || state == NodeRunState::kBehind ||
        (committed && yes("over"))) {
      run.owed += number;
    } else if (HasFailed(state, yes("why"))) {
      run.failed += number;
    }
  }
}

std::map<std::int64_t, Journal::Counts> Journal::NodeCounts(
    const std::vector<std::int64_t>& runs) const {
  std::map<std::int64_t, Counts> counts;
  InLists(runs, [&](const std::string& list) { AddCounts(*db_, list, counts); });
  return counts;
}

BookedRun Journal::Find(std::int64_t id) const {
  return {FindHead(*db_, id), NodesOf(*db_, id, With::kSteps)};
}

std::vector<Journal::Debt> Journal::Debts() const {
  return ReadNodes(*db_, With::kSteps,
                   "where n.state in " + OwingStates() +
                       " and (select r.ended from runs r where r.id = n.run) <> 0",
                   {}, "n.machine");
}

std::vector<Journal::Past> Journal::History(const std::string& node, const std::string& path,
                                            std::int64_t most) const {
  const std::string on = "s.run = n.run and s.node = n.number";
  std::string join = " left join run_steps s on " + on;
  std::string which;
  Arguments args;
  if (!path.empty()) {
    which = join = " join run_steps s on " + on + " and (s.object = ? or s.moved = ?)";
    args = {Exact(path), Exact(path)};
  }
  args.push_back(Exact(node));
  Arguments all = args;
  all.insert(all.end(), args.begin(), args.end());
  all.push_back(str::Str(most));
  const std::string where = " where n.name = ? and n.state not in " + UntouchedStates();
  const auto query = db_->Select(
      "select r.*, n.state as node_state, s.step from run_nodes n join runs r on r.id = n.run" +
          join + where + " and n.run in (select distinct n.run from run_nodes n" + which + where +
          " order by n.run desc limit ?) order by n.run desc, s.number",
      all);
  std::vector<Past> past;
  while (query->Next()) {
    if (past.empty() || past.back().run.id != query->AsInt64("id"))
      past.push_back({HeadOf(*query), NodeStateOf(*query), {}});
    const std::string step = query->AsString("step");
    if (!step.empty()) past.back().steps.push_back(RunStep::Read(step));
  }
  return past;
}

namespace {

/// What a run did to a node.
struct Touch {
  std::string node;
  std::int64_t run;
  NodeRunState state;
};

std::vector<Touch> ReadTouches(pnl_db::Cache& db, const std::string& begin,
                               const std::string& from) {
  std::vector<Touch> touches;
  const auto query = db.Select(begin + "select n.name, n.run, n.state as node_state from " + from +
                               " and n.state not in " + UntouchedStates());
  while (query->Next())
    touches.push_back({ExactOf(*query, "name"), query->AsInt64("run"), NodeStateOf(*query)});
  return touches;
}

/// The newest of each node, by index: in the end most rows are of runs that nobody remembers.
std::vector<Touch> ReadNewestTouches(pnl_db::Cache& db) {
  const std::string next = "select min(n.name) from run_nodes n where n.name > names.name";
  const std::string names = "select min(name) from run_nodes union all select (" + next +
                            ") from names where names.name is not null";
  const std::string newest = "select t.run from run_nodes t where t.name = names.name and " +
                             ("t.state not in " + UntouchedStates()) +
                             " order by t.run desc limit 1";
  return ReadTouches(
      db, "with recursive names (name) as (" + names + ") ",
      "names join run_nodes n on n.name = names.name and n.run = (" + newest + ") where n.run > 0");
}

}  // namespace

std::map<std::string, Journal::LastChange> Journal::LastChanges() const {
  std::vector<Touch> touches = ReadNewestTouches(*db_);
  std::map<std::int64_t, LastChange> ends;
  // Runs that ended after the end of a newer one, as those that were undone late.
  std::vector<std::int64_t> late;
  const auto query = db_->Select(
      "select id, command, case ended when 0 then begun else ended end as at from runs "
      "order by id desc");
  for (std::int64_t newer = std::numeric_limits<std::int64_t>::max(); query->Next();) {
    const std::int64_t at = query->AsInt64("at");
    ends[query->AsInt64("id")] = {at, query->AsString("command")};
    if (at > newer) late.push_back(query->AsInt64("id"));
    newer = std::min(newer, at);
  }
  InLists(late, [&](const std::string& list) {
    for (Touch& touch : ReadTouches(*db_, "", "run_nodes n where n.run in " + list))
      touches.push_back(std::move(touch));
  });
  std::erase_if(touches, [&](const Touch& touch) { return !ends.contains(touch.run); });  // pruned
  std::sort(touches.begin(), touches.end(), [&](const Touch& a, const Touch& b) {
    return std::pair(ends[a.run].time, a.run) < std::pair(ends[b.run].time, b.run);
  });
  std::map<std::string, LastChange> changes;
  for (const Touch& touch : touches) {
    LastChange& change = changes[touch.node] = ends[touch.run];
    if (touch.state == NodeRunState::kUndone) change.what = "undo of " + change.what;
  }
  return changes;
}

// --- By hand

bool Journal::WriteOff(std::int64_t id, const std::string& node, const std::string& reason) {
  return db_->Execute("update run_nodes set state = " + Literal(NodeRunState::kWrittenOff) +
                          ", reason = ?, noted = ? where run = ? and name = ? and state in " +
                          OpenStates() + " and run in (select id from runs where ended <> 0)",
                      {Readable(reason), str::Str(std::time(nullptr)), IdOf(id), Exact(node)}) > 0;
}

void Journal::DropUndo(const RunHead& run) {
  Transaction transaction(*db_);
  HoldRun(*db_, run);
  db_->Execute("update runs set keep_undo = 0 where id = ?", {IdOf(run.id)});
  transaction.Commit();
}

/// A condition for ended runs that began before its argument, and that no node needs.
static std::string IsOld() {
  return "begun < ? and state not in " + UnfinishedStates() +
         " and not exists (select 1 from run_nodes n where n.run = runs.id and n.state in " +
         OpenStates() + ")";
}

std::vector<RunHead> Journal::Old(std::time_t before) const {
  return ReadHeads(*db_, "where " + IsOld() + " order by id desc", {str::Str(before)});
}

std::int64_t Journal::Prune(std::time_t before) {
  // Others can wait so long for the database, and look again after so long a pause.
  constexpr std::chrono::milliseconds kShare{100};
  constexpr int kPause = 30;  // milliseconds
  const std::string gone =
      IsOld() + " and (keep_undo = 0 or state = " + Literal(RunState::kUndone) + ")";
  const std::vector<RunHead> runs = ReadHeads(*db_, "where " + gone, {str::Str(before)});
  std::int64_t pruned = 0;
  for (auto run = runs.begin(); run != runs.end();) {
    if (run != runs.begin()) pnl_proc::Sleep(kPause);
    Transaction transaction(*db_);
    const pnl_time::Deadline share{kShare};
    for (; run != runs.end() && !share.Passed(); ++run) {
      const std::string id = IdOf(run->id);
      // Somebody may have taken it up again meanwhile.
      if (db_->Execute("delete from runs where " + gone + " and id = ?", {str::Str(before), id}) ==
          0)
        continue;
      db_->Execute("delete from run_steps where run = ?", {id});
      db_->Execute("delete from run_nodes where run = ?", {id});
      ++pruned;
    }
    transaction.Commit();
  }
  return pruned;
}

}  // namespace fleet
