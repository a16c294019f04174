#include "fleet/fleet_database.h"
#include "tools/commands/run/run.h"
#include "tools/frame/run_report.h"

namespace tools {
namespace {

/// The newest first: it stands on those before it.
std::vector<std::int64_t> Ids(const Context& context, const fleet::Journal& journal) {
  if (context.values.Has("ID")) return {journal.Find(RunId(context)).head.id};
  std::vector<std::int64_t> ids;
  for (const fleet::RunHead& run : journal.Unfinished()) ids.insert(ids.begin(), run.id);
  return ids;
}

int Undo(Context& context) {
  fleet::Journal journal(fleet::OpenFleetDatabase());
  const std::vector<std::int64_t> ids = Ids(context, journal);
  if (ids.empty()) return TellNothing(context, "Nothing to do: no run is unfinished.");
  return TellEndedRuns(
      context, journal, ids,
      [&](std::int64_t id, const fleet::RecoverOptions& options) {
        return fleet::UndoRun(journal, id, options);
      },
      [](const fleet::RunReport& report) { return report.state == fleet::RunState::kUndone; });
}

void Describe(opts::Args& args) {
  AddRunId(args).Optional();
  AddTakeOverOption(args);
  AddRecoverOptions(args);
  args.Details(
      "Without ID, all unfinished runs are undone, the newest first. What somebody else has "
      "changed "
      "since is a conflict: it is told and left alone, and the rest is undone. A run whose steps "
      "were secret, or larger than the journal takes, cannot be undone after its end. The nodes "
      "are reached as the journal says, except for what these options say. The exit code is 0 if "
      "all nodes are as before the run, else 1.");
}

}  // namespace

Verb RunUndoVerb() {
  return {.name = "undo",
          .summary = "Undoes a run, or all unfinished ones.",
          .describe = Describe,
          .run = Undo,
          .examples = {"17", ""},
          .fields = RunRecordFields(),
          .reach = Reach::kNothing};
}

}  // namespace tools
