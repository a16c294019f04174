#include "fleet/fleet_database.h"
#include "tools/commands/run/run.h"

namespace tools {
namespace {

std::vector<CountedRun> Runs(bool unfinished) {
  std::vector<CountedRun> runs;
  if (!fleet::HasFleetDatabase()) return runs;
  const fleet::Journal journal(fleet::OpenFleetDatabase());
  auto counts = journal.NodeCounts();
  for (fleet::RunHead& head : journal.Runs()) {
    if (unfinished && fleet::IsEnd(head.state)) continue;
    const std::int64_t id = head.id;
    runs.push_back({std::move(head), counts[id]});
  }
  return runs;
}

int List(Context& context) {
  const std::vector<CountedRun> runs = Runs(context.values.Has("unfinished"));
  context.out.List(ToRecords(RunFields(), runs), {"id", "state", "begun", "user", "command",
                                                  "nodes", "changed", "failed", "owed"});
  if (!context.out.ForPeople() || context.out.IsShaped()) return kDone;
  context.out.Plain((runs.empty() ? "no runs in " : "journal: ") + fleet::FleetDatabaseAddress() +
                    "\n");
  return kDone;
}

}  // namespace

Verb RunListVerb() {
  return {.name = "list",
          .summary = "Lists the runs of the journal, the newest first.",
          .describe =
              [](opts::Args& args) {
                args.Option("unfinished").Help("only runs that have not ended");
                args.Details("Below the list, people see which journal it is.");
              },
          .run = List,
          .examples = {"", "--unfinished", "-o json"},
          .fields = Declared(RunFields()),
          .reach = Reach::kNothing};
}

}  // namespace tools
