#include <algorithm>
#include <map>
#include <set>

#include "fleet/fleet_database.h"
#include "tools/commands/run/run.h"
#include "tools/frame/run_report.h"

namespace tools {
namespace {

bool IsOwing(fleet::NodeRunState state) {
  using State = fleet::NodeRunState;
  return state == State::kOwed || state == State::kCommitted || state == State::kConflict ||
         state == State::kBehind;
}

template <class Nodes>
bool HasOpen(const Nodes& nodes) {
  return std::any_of(nodes.begin(), nodes.end(), [](const auto& n) { return IsOwing(n.state); });
}

std::vector<std::int64_t> Ids(const Context& context, const fleet::Journal& journal) {
  if (context.values.Has("ID")) {
    const std::int64_t id = RunId(context);
    if (!tools::IsOpen(journal, id)) return {};
    return {id};
  }
  std::set<std::int64_t> ids;
  for (const fleet::RunHead& run : journal.Unfinished()) ids.insert(run.id);
  for (const fleet::Journal::Debt& debt : journal.Debts()) ids.insert(debt.run);
  return {ids.begin(), ids.end()};
}

int Resume(Context& context) {
  fleet::Journal journal(fleet::OpenFleetDatabase());
  const std::vector<std::int64_t> ids = Ids(context, journal);
  if (!ids.empty()) return ResumeRuns(context, journal, ids);
  return TellNothing(context,
                     context.values.Has("ID")
                         ? "Nothing to do: the run has ended, and no node owes anything."
                         : "Nothing to do: no run is unfinished, and no node owes anything.");
}

void Describe(opts::Args& args) {
  AddRunId(args).Optional();
  AddTakeOverOption(args);
  AddRecoverOptions(args);
  args.Details(
      "Without ID, all unfinished runs are ended, and what nodes owe is paid. An unfinished run is "
      "carried to its end if every file is as it was, or as the run has left it; otherwise it is "
      "undone. A committed run is only cleaned up. With ID, what is in conflict is tried again. "
      "The "
      "nodes are reached as the journal says, except for what these options say. The exit code is "
      "0 if all nodes have what the run was to bring, else 1.");
}

}  // namespace

bool IsOpen(const fleet::Journal& journal, std::int64_t id) {
  const fleet::BookedRun run = journal.Find(id);
  return !fleet::IsEnd(run.head.state) || HasOpen(run.nodes);
}

int ResumeRuns(Context& context, fleet::Journal& journal, const std::vector<std::int64_t>& ids) {
  std::map<std::int64_t, fleet::RunState> were;  // states before
  for (const std::int64_t id : ids) were[id] = journal.Find(id).head.state;
  return TellEndedRuns(
      context, journal, ids,
      [&](std::int64_t id, const fleet::RecoverOptions& options) {
        return fleet::ResumeRun(journal, id, options);
      },
      [&](const fleet::RunReport& report) {
        const fleet::RunState was = were.at(report.id);
        if (fleet::IsEnd(was)) return !HasOpen(report.nodes);  // only the debts are paid
        if (was == fleet::RunState::kUndoing) return report.state == fleet::RunState::kUndone;
        return report.Good();
      });
}

Verb RunResumeVerb() {
  return {.name = "resume",
          .summary = "Goes on with a run that was interrupted, or with all of them.",
          .describe = Describe,
          .run = Resume,
          .examples = {"", "17", "17 --take-over"},
          .fields = RunRecordFields(),
          .reach = Reach::kNothing};
}

}  // namespace tools
