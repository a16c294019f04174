#include <algorithm>

#include "fleet/fleet_database.h"
#include "tools/commands/run/run.h"

namespace tools {
namespace {

constexpr std::int64_t kShown = 100;

/// The newest first; one more than is shown, when there are more.
std::vector<fleet::RunHead> Heads(const Context& context, const fleet::Journal& journal) {
  if (!context.values.Has("unfinished"))
    return journal.Runs(context.values.Has("all") ? fleet::Journal::kAll : kShown + 1);
  std::vector<fleet::RunHead> heads = journal.Unfinished();
  std::reverse(heads.begin(), heads.end());
  return heads;
}

std::vector<CountedRun> Runs(const Context& context, bool& more) {
  std::vector<CountedRun> runs;
  if (!fleet::HasFleetDatabase()) return runs;
  const fleet::Journal journal(fleet::OpenFleetDatabase());
  std::vector<fleet::RunHead> heads = Heads(context, journal);
  more = !context.values.Has("unfinished") && !context.values.Has("all") && heads.size() > kShown;
  if (more) heads.pop_back();
  std::vector<std::int64_t> ids;
  ids.reserve(heads.size());
  for (const fleet::RunHead& head : heads) ids.push_back(head.id);
  auto counts = journal.NodeCounts(ids);
  for (fleet::RunHead& head : heads) {
    const std::int64_t id = head.id;
    runs.push_back({std::move(head), counts[id]});
  }
  return runs;
}

int List(Context& context) {
  bool more = false;
  const std::vector<CountedRun> runs = Runs(context, more);
  context.out.List(ToRecords(RunFields(), runs), {"id", "state", "begun", "user", "command",
                                                  "nodes", "changed", "failed", "owed"});
  if (!context.out.ForPeople() || context.out.IsShaped()) return kDone;
  if (more) context.out.Plain("older runs: --all\n");
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
                args.Option("all").Help("all runs, not only the newest 100");
                args.Details("Below the list, people see which journal it is.");
              },
          .run = List,
          .examples = {"", "--unfinished", "--all -o json"},
          .fields = Declared(RunFields()),
          .reach = Reach::kNothing};
}

}  // namespace tools
