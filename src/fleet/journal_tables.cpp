#include "fleet/journal_tables.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <utility>

#include "pnl/utf8.h"

namespace fleet {
namespace {

// PostgreSQL's widest. A step with 1 MiB of content before and after it, every byte encoded, takes
// 6 MiB.
constexpr int kWidth = 10'485'760;
constexpr std::size_t kMaxStatement = std::size_t{4} << 20;  // bytes of the rows of a statement

struct Table : pnl_db::IdTable {
  Table(const char* name, std::initializer_list<const char*> texts,
        std::initializer_list<const char*> numbers)
      : IdTable(name) {
    for (const char* column : texts) new pnl_db::StringField(this, column, kWidth);
    for (const char* column : numbers) new pnl_db::LongField(this, column);
  }
};

Table Runs() {
  return {"runs",
          {"token", "command", "policy", "state", "host", "login", "owner_host", "owner_machine",
           "boot", "key_change"},
          {"keep_undo", "begun", "committed", "ended", "epoch", "owner", "owner_start"}};
}

Table Nodes() {
  return {"run_nodes", {"name", "machine", "login", "state", "reason"}, {"run", "number", "noted"}};
}

/// What a step moves away has a column, too, to be found by its path.
Table Steps() {
  return {"run_steps", {"object", "moved", "step"}, {"run", "node", "number"}};
}

// --- States, by their values

constexpr std::array<const char*, 6> kRunStates = {"making",  "committed", "done",
                                                   "undoing", "undone",    "partly"};
constexpr std::array<const char*, 12> kNodeStates = {
    "unchanged", "waiting", "making",   "made", "committed", "done",
    "failed",    "undone",  "conflict", "owed", "behind",    "written off"};

template <class State, std::size_t kCount>
State StateOf(const std::array<const char*, kCount>& words, const std::string& word) {
  const auto* const found = std::find(words.begin(), words.end(), word);
  if (found != words.end()) return static_cast<State>(found - words.begin());
  throw pnl_err::Error("run", "state", word)
      .add_param("message", "the journal of runs has the unknown state '" + word +
                                "': a newer release has written it");
}

/// Those that are no end, as a list of SQL.
template <class State, std::size_t kCount>
std::string Others(const std::array<const char*, kCount>& words) {
  Arguments list;
  for (const char* word : words)
    if (!IsEnd(StateOf<State>(words, word))) list.push_back(pnl_db::Cache::Quote(word));
  return "(" + str::Join(list, ", ") + ")";
}

// --- Columns

bool IsPlain(char c) {
  return c >= ' ' && c <= '~' && c != '%';
}

/// Inserts many rows with few statements, none of which is too large.
class Inserter {
 public:
  Inserter(pnl_db::Cache& db, const char* table, const Arguments& columns)
      : db_(db),
        columns_(columns.size()),
        into_(std::string("insert into ") + table + " (" + str::Join(columns, ", ") + ") ") {}

  void Add(Arguments row) {
    for (std::string& value : row) {
      size_ += value.size();
      rows_.push_back(std::move(value));
    }
    if (size_ > kMaxStatement || rows_.size() >= kMaxArguments) Write();
  }

  void Write() {
    InGroups(rows_, columns_, [&](const std::string& values, const Arguments& args) {
      db_.Execute(into_ + values, args);
    });
    rows_.clear();
    size_ = 0;
  }

 private:
  pnl_db::Cache& db_;
  const std::size_t columns_;
  const std::string into_;
  Arguments rows_;
  std::size_t size_ = 0;
};

}  // namespace

void MakeRunTables(pnl_db::Cache& db) {
  if (HasTable(db, Runs()) && HasTable(db, Nodes()) && HasTable(db, Steps())) return;
  pnl_db::Transaction transaction(db);
  Runs().Create(db);
  Nodes().Create(db);
  Steps().Create(db);
  // An index of all states would get most of the writing, and PostgreSQL keeps what an update
  // leaves in it until the next vacuum.
  const std::string owing =
      "index if not exists run_nodes_due on run_nodes (run) where state in " + OwingStates();
  for (const char* index : {"index if not exists runs_state on runs (state)", owing.c_str(),
                            "unique index if not exists run_nodes_name on run_nodes (name, run)",
                            "index if not exists run_nodes_run on run_nodes (run, number)",
                            "index if not exists run_steps_run on run_steps (run, node)"})
    db.Execute(std::string("create ") + index);
  transaction.Commit();
}

std::string Exact(std::string_view text) {
  return str::PercentEncode(text, IsPlain);
}

std::string ExactOf(const pnl_db::Query& row, const std::string& column) {
  std::string text;
  str::PercentDecode(row.AsString(column), text);
  return text;
}

std::string Readable(std::string_view text) {
  return std::string(utf8::Cut(utf8::Printable(text), Journal::kMaxReason));
}

std::string ToText(RunState state) {
  return kRunStates[static_cast<std::size_t>(state)];
}

std::string ToText(NodeRunState state) {
  return state == NodeRunState::kBehind ? ToText(NodeRunState::kOwed) : WordOf(state);
}

std::string WordOf(NodeRunState state) {
  return kNodeStates[static_cast<std::size_t>(state)];
}

std::string Literal(RunState state) {
  return pnl_db::Cache::Quote(ToText(state));
}

std::string Literal(NodeRunState state) {
  return pnl_db::Cache::Quote(WordOf(state));
}

std::string UnfinishedStates() {
  return Others<RunState>(kRunStates);
}

std::string OwingStates() {
  return "(" + Literal(NodeRunState::kOwed) + ", " + Literal(NodeRunState::kCommitted) + ", " +
         Literal(NodeRunState::kBehind) + ")";
}

std::string BusyStates() {
  return Others<NodeRunState>(kNodeStates);
}

std::int64_t InsertHead(pnl_db::Cache& db, const RunHead& run) {
  const Arguments row = {run.token,
                         Readable(run.command),
                         Readable(run.policy),
                         ToText(run.state),
                         Exact(run.host),
                         Exact(run.user),
                         Exact(run.owner_host),
                         run.owner_machine,
                         run.boot,
                         run.key,
                         run.keep_undo ? "1" : "0",
                         str::Str(run.begun),
                         str::Str(run.committed),
                         str::Str(run.ended),
                         str::Str(run.epoch),
                         str::Str(run.owner),
                         str::Str(run.owner_start)};
  const auto query =
      db.Select("insert into runs (" + str::Join(Runs().Columns(), ", ") + ") values (" +
                    str::Join(Arguments(row.size(), "?"), ", ") + ") returning id",
                row);
  query->Next();
  return query->AsInt64("id");
}

static void AddSteps(Inserter& rows, const std::string& run, const std::string& node,
                     const std::vector<RunStep>& steps) {
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const RunStep& step = steps[i];
    const std::string moved = step.form == StepForm::kMove ? step.from : "";
    rows.Add({Exact(step.object), Exact(moved), step.Text(), run, node, std::to_string(i)});
  }
}

void InsertNodes(pnl_db::Cache& db, std::int64_t run, const std::vector<RunNode>& nodes) {
  const std::string id = str::Str(run);
  Inserter rows(db, "run_nodes", Nodes().Columns());
  Inserter steps(db, "run_steps", Steps().Columns());
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    const RunNode& node = nodes[i];
    const std::string number = std::to_string(i);
    rows.Add({Exact(node.name), Exact(node.machine), Exact(node.login), WordOf(node.state),
              Readable(node.reason), id, number, "0"});
    AddSteps(steps, id, number, node.steps);
  }
  rows.Write();
  steps.Write();
}

static std::string NumberOf(pnl_db::Cache& db, const std::string& run, const std::string& node) {
  const auto query =
      db.Select("select number from run_nodes where run = ? and name = ?", {run, Exact(node)});
  if (query->Next()) return query->AsString("number");
  throw pnl_err::Missed("node", node).add_param("message", "run " + run + " has no node " + node);
}

void ReplaceSteps(pnl_db::Cache& db, std::int64_t run, const std::string& node,
                  const std::vector<RunStep>& steps) {
  const std::string id = str::Str(run);
  const std::string number = NumberOf(db, id, node);
  db.Execute("delete from run_steps where run = ? and node = ?", {id, number});
  Inserter rows(db, "run_steps", Steps().Columns());
  AddSteps(rows, id, number, steps);
  rows.Write();
}

RunHead HeadOf(const pnl_db::Query& row) {
  return {.id = row.AsInt64("id"),
          .token = row.AsString("token"),
          .command = row.AsString("command"),
          .policy = row.AsString("policy"),
          .key = row.AsString("key_change"),
          .keep_undo = row.AsInt64("keep_undo") != 0,
          .state = StateOf<RunState>(kRunStates, row.AsString("state")),
          .host = ExactOf(row, "host"),
          .user = ExactOf(row, "login"),
          .begun = row.AsInt64("begun"),
          .committed = row.AsInt64("committed"),
          .ended = row.AsInt64("ended"),
          .epoch = row.AsInt64("epoch"),
          .owner = row.AsInt64("owner"),
          .owner_start = row.AsInt64("owner_start"),
          .owner_host = ExactOf(row, "owner_host"),
          .owner_machine = row.AsString("owner_machine"),
          .boot = row.AsString("boot")};
}

NodeRunState NodeStateOf(const pnl_db::Query& row) {
  return StateOf<NodeRunState>(kNodeStates, row.AsString("node_state"));
}

std::vector<RunHead> ReadHeads(pnl_db::Cache& db, const std::string& where, const Arguments& args) {
  std::vector<RunHead> heads;
  const auto query = db.Select("select * from runs " + where, args);
  while (query->Next()) heads.push_back(HeadOf(*query));
  return heads;
}

RunHead FindHead(pnl_db::Cache& db, std::int64_t run) {
  const std::string id = str::Str(run);
  auto found = ReadHeads(db, "where id = ?", {id});
  if (!found.empty()) return std::move(found.front());
  throw pnl_err::Missed("run", id).add_param(
      "message", "there is no run " + id + ": brefirctl run list shows all");
}

std::vector<Journal::Debt> ReadNodes(pnl_db::Cache& db, With with, const std::string& where,
                                     const Arguments& args, const std::string& order) {
  const bool steps = with == With::kSteps;
  std::vector<Journal::Debt> nodes;
  std::pair<std::int64_t, std::int64_t> last = {-1, -1};
  const auto query = db.Select(
      std::string("select n.run, n.number, n.name, n.machine, n.login, n.state as node_state, ") +
          "n.reason, n.noted, " + (steps ? "s.step" : "'' as step") + " from run_nodes n " +
          (steps ? "left join run_steps s on s.run = n.run and s.node = n.number " : "") + where +
          " order by " + str::Append(order, "n.run, n.number", ", ") + (steps ? ", s.number" : ""),
      args);
  while (query->Next()) {
    const std::pair row = {query->AsInt64("run"), query->AsInt64("number")};
    if (std::exchange(last, row) != row) {
      nodes.push_back({row.first,
                       {.name = ExactOf(*query, "name"),
                        .machine = ExactOf(*query, "machine"),
                        .login = ExactOf(*query, "login"),
                        .state = NodeStateOf(*query),
                        .reason = query->AsString("reason"),
                        .noted = query->AsInt64("noted")}});
    }
    const std::string step = query->AsString("step");
    if (!step.empty()) nodes.back().node.steps.push_back(RunStep::Read(step));
  }
  return nodes;
}

std::vector<RunNode> NodesOf(pnl_db::Cache& db, std::int64_t run, With with) {
  std::vector<RunNode> nodes;
  for (Journal::Debt& each : ReadNodes(db, with, "where n.run = ?", {str::Str(run)}))
    nodes.push_back(std::move(each.node));
  return nodes;
}

}  // namespace fleet
