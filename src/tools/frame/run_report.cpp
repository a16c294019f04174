#include "tools/frame/run_report.h"

#include <sys/resource.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <map>

#include "fleet/failed_nodes.h"
#include "fleet/gather.h"
#include "pnl/str.h"
#include "tools/frame/ask.h"

namespace tools {

// --- During the work

RunScreen::RunScreen(Context& context, const std::vector<std::string>& nodes, bool draws)
    : context_(context),
      nodes_(nodes),
      table_(nodes_, draws && !context.values.Has("verbose") && !context.values.Has("quiet")) {}

fleet::FanOptions RunScreen::Fan() const {
  const auto seconds = [&](const char* option) {
    const opts::Values& values = context_.values;
    return std::chrono::seconds(values.HasAtAll(option) ? values.Int(option) : 0);
  };
  return {.forks = Forks(context_),
          .node_deadline = seconds("node-deadline"),
          .deadline = seconds("deadline"),
          .stop = stop_};
}

int RunScreen::Timeout() const {
  const opts::Values& values = context_.values;
  return values.HasAtAll("timeout") ? static_cast<int>(values.Int("timeout"))
                                    : fleet::RunOptions().timeout;
}

/// Raises the limit of descriptors as far as this process may; returns it.
static std::size_t AllowManyDescriptors() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  return std::min<rlim_t>(limit.rlim_cur, INT_MAX);
}

std::size_t RunScreen::MaxSessions() const {
  constexpr std::size_t kOwn = 64;    // files, pipes, the database
  constexpr std::size_t kAtWork = 8;  // of a node that is at work: its session, jump hosts, names
  constexpr std::size_t kKept = 3;    // of a session that is kept: with a jump host
  const auto wanted = static_cast<std::size_t>(NumberSetting("max_sessions", 1));
  const std::size_t used = kOwn + kAtWork * Forks(context_);
  const std::size_t limit = AllowManyDescriptors();
  return limit <= used ? 1 : std::clamp<std::size_t>((limit - used) / kKept, 1, wanted);
}

fleet::RunWatch RunScreen::Watch() {
  return {
      .phase = [this](fleet::RunPhase phase, std::size_t) { phase_ = phase; },
      .begun = [this](std::size_t node) { table_.Set(nodes_[node], fleet::NodeState::kRunning); },
      .ended = [this](std::size_t node, const std::string& failure) { Ended(node, failure); },
      .paid =
          [this](std::size_t node, std::int64_t run) {
            const std::scoped_lock lock(mutex_);
            paid_.push_back(nodes_[node] + ": what run " + std::to_string(run) +
                            " owed there is paid");
          }};
}

void RunScreen::Ended(std::size_t node, const std::string& failure) {
  const fleet::RunPhase phase = phase_;
  fleet::NodeState state = fleet::NodeState::kFinished;
  if (phase == fleet::RunPhase::kPlan) state = fleet::NodeState::kChecked;
  if (phase == fleet::RunPhase::kUndo) state = fleet::NodeState::kRestored;
  // A node that was undone still has the reason for which it was.
  if (!failure.empty() && failure != reasons_[node]) state = fleet::NodeState::kError;
  reasons_[node] = failure;
  table_.Set(nodes_[node], state, failure);
}

void RunScreen::End() {
  table_.End();
  for (const std::string& line : paid_)
    context_.Warn(pnl_err::Error("run", "paid").add_param("message", line));
  paid_.clear();
}

// --- Afterwards

std::vector<Field> RunRecordFields() {
  return {{"node", "its name"},
          {"state",
           "unchanged, waiting, making, made, committed, done, failed, undone, conflict, owed or "
           "written off"},
          {"changed", "whether the node has what the run was to bring, and had not before"},
          {"run", "the run's ID; 0 if nothing was to do"},
          {"error", "why it failed, was undone, is owed or in conflict", "if there is a reason"}};
}

std::vector<Record> RunRecords(const fleet::RunReport& report) {
  std::vector<Record> records;
  for (const fleet::NodeReport& node : report.nodes) {
    records.push_back(Record()
                          .Add("node", node.name)
                          .Add("state", fleet::ToText(node.state))
                          .Add("changed", node.changed)
                          .Add("run", report.id));
    if (const std::string reason = ReasonText(node); !reason.empty())
      records.back().Add("error", reason);
  }
  return records;
}

std::string ReasonText(const fleet::NodeReport& node) {
  return node.error ? ReasonText(*node.error, node.name) : node.reason;
}

void TellReasons(Context& context, const std::vector<std::string>& nodes,
                 const std::vector<std::string>& reasons) {
  for (const fleet::Gathered& group : fleet::Gather(nodes, reasons)) {
    if (group.answer.empty()) continue;
    context.Warn(pnl_err::Error("node", group.names)
                     .add_param("message", group.names + ": " + group.answer));
  }
}

static std::size_t Count(const fleet::RunReport& report, fleet::NodeRunState state) {
  return static_cast<std::size_t>(
      std::count_if(report.nodes.begin(), report.nodes.end(),
                    [&](const fleet::NodeReport& node) { return node.state == state; }));
}

void TellFailures(Context& context, const fleet::RunReport& report) {
  std::vector<std::string> names, reasons;
  for (const fleet::NodeReport& node : report.nodes) {
    if (node.state == fleet::NodeRunState::kWrittenOff) continue;
    names.push_back(node.name);
    reasons.push_back(ReasonText(node));
  }
  TellReasons(context, names, reasons);
  const std::string id = std::to_string(report.id);
  const auto warn = [&](const std::string& what, const std::string& message) {
    context.Warn(pnl_err::Error("run", what, id).add_param("message", message));
  };
  if (!report.reason.empty() && report.state == fleet::RunState::kUndone)
    warn("undone", "all nodes are as before: " + report.reason);
  if (Count(report, fleet::NodeRunState::kOwed) != 0 ||
      Count(report, fleet::NodeRunState::kCommitted) != 0)
    warn("owed", "run " + id +
                     " could not be ended on all nodes; the next run that reaches them does it, or "
                     "'brefirctl run resume " +
                     id +
                     "'; for a node that is gone or was installed anew: 'brefirctl run write-off " +
                     id + "'");
  if (Count(report, fleet::NodeRunState::kBehind) != 0)
    warn("behind",
         "run " + id +
             " owes the new key to nodes that were not reached; they still accept the old "
             "one, which is kept here for them: when they are back, 'brefirctl key "
             "resume'; if they never come back, 'brefirctl run write-off " +
             id + "'");
  if (Count(report, fleet::NodeRunState::kConflict) != 0)
    warn("conflict", "run " + id +
                         " could not be undone everywhere, and what nobody planned on is left "
                         "alone: 'brefirctl run show " +
                         id + " --diff' shows what was there; 'brefirctl run undo " + id +
                         "' tries again, 'brefirctl run write-off " + id + "' closes it");
}

std::string Summary(const fleet::RunReport& report) {
  std::map<fleet::NodeRunState, std::size_t> counts;
  for (const fleet::NodeReport& node : report.nodes) ++counts[node.state];
  std::string text;
  for (const auto& [state, count] : counts)
    text = str::Append(text, std::to_string(count) + " " + fleet::ToText(state), ", ");
  const std::string head =
      report.id == 0 ? (report.reason.empty() ? "nothing to do" : "nothing was changed")
                     : "run " + std::to_string(report.id) + " is " + fleet::ToText(report.state);
  return str::Append(head, text, ": ");
}

/// "web[1-3]: done", a line for each state.
static std::string StateLines(const fleet::RunReport& report, const NodeWords& words) {
  std::vector<std::string> names, states;
  for (std::size_t i = 0; i < report.nodes.size(); ++i) {
    names.push_back(report.nodes[i].name);
    states.push_back(words ? words(i) : "");
    if (states.back().empty()) states.back() = fleet::ToText(report.nodes[i].state);
  }
  std::string lines;
  for (const fleet::Gathered& group : fleet::Gather(names, states))
    lines += group.names + ": " + group.answer + "\n";
  return lines;
}

void TellRuns(Context& context, const std::vector<fleet::RunReport>& reports,
              const NodeWords& words) {
  const bool lines = context.out.ForPeople() && !context.out.IsShaped();
  std::vector<Record> records;
  std::vector<std::string> failed;
  for (const fleet::RunReport& report : reports) {
    for (Record& record : RunRecords(report)) records.push_back(std::move(record));
    for (const fleet::NodeReport& node : report.nodes)
      if (fleet::HasFailed(node.state, !node.reason.empty())) failed.push_back(node.name);
    if (lines) context.out.Plain(StateLines(report, words));
  }
  if (!lines) context.out.List(std::move(records));
  context.out.Flush();  // on a terminal, what follows is below
  for (const fleet::RunReport& report : reports) {
    TellFailures(context, report);
    if (!context.values.Has("quiet")) std::fputs((Summary(report) + "\n").c_str(), stderr);
  }
  KeepFailed(context, failed);
}

int TellNothing(Context& context, const std::string& sentence) {
  if (context.out.ForPeople())
    context.out.Plain(sentence + "\n");
  else
    context.out.List({});
  return kDone;
}

int RunCode(const fleet::RunReport& report, fleet::RunState wanted, bool interrupted) {
  const bool good = wanted == fleet::RunState::kDone ? report.Good() : report.state == wanted;
  if (good) return kDone;
  return interrupted ? kInterrupted : kFailed;
}

void KeepFailed(Context& context, const std::vector<std::string>& nodes) {
  try {
    fleet::KeepFailedNodes(nodes);
  } catch (const pnl_err::Error& error) {
    context.Warn(pnl_err::Error(error.type(), error.object(), error.value())
                     .add_param("message", "@failed could not be stored: " +
                                               ErrorText(error, Format::kTable)));
  }
}

}  // namespace tools
