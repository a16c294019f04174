// run: changes of nodes as transactions, from the journal.

#include "tools/commands/families.h"
#include "tools/commands/run/run.h"
#include "tools/frame/login.h"
#include "tools/frame/run_report.h"

namespace tools {

const FieldTable<CountedRun>& RunFields() {
  using R = CountedRun;
  const auto time = [](std::time_t at) {
    return at == 0 ? Value() : Value(pnl_date::DateTime(at));
  };
  static const auto* const table = new FieldTable<R>{
      {{"id", "the ID that other commands take"}, [](const R& run) { return run.head.id; }},
      {{"state",
        "making, committed or undoing while it is unfinished; done, undone, or partly if not all "
        "nodes are as they should be"},
       [](const R& run) { return fleet::ToText(run.head.state); }},
      {{"begun", "when it began"}, [time](const R& run) { return time(run.head.begun); }},
      {{"ended", "when it ended, or null"}, [time](const R& run) { return time(run.head.ended); }},
      {{"user", "who began it"}, [](const R& run) { return run.head.user; }},
      {{"host", "the panel host on which it began"}, [](const R& run) { return run.head.host; }},
      {{"policy", "all-or-none, each, or how many nodes are changed together"},
       [](const R& run) { return run.head.policy; }},
      {{"command", "the command that began it"}, [](const R& run) { return run.head.command; }},
      {{"keep_undo", "whether the nodes keep the old content until the run is pruned or undone"},
       [](const R& run) { return run.head.keep_undo; }},
      {{"nodes", "how many nodes it has; the same in 'run show': the nodes"},
       [](const R& run) { return run.counts.nodes; }},
      {{"changed", "how many of them have what it was to bring, and had not before"},
       [](const R& run) { return run.counts.changed; }},
      {{"failed", "how many failed, were undone for a reason, or are in conflict"},
       [](const R& run) { return run.counts.failed; }},
      {{"owed", "how many could not be reached to undo it or to clean up"},
       [](const R& run) { return run.counts.owed; }},
  };
  return *table;
}

opts::Arg& AddRunId(opts::Args& args) {
  return args.Positional("ID").Help("the run, as 'run list' shows it").Completes("runs");
}

std::int64_t RunId(const Context& context) {
  return RunNumber(context.values.Str("ID"));
}

Family RunFamily() {
  return {.name = "run",
          .summary = "Changes of nodes: what was done, what is unfinished, and the way back.",
          .describe =
              [](opts::Args& args) {
                args.Details(
                    "A command that changes nodes is a run. It is in the journal before a node is "
                    "touched: what was there, and what shall be there. All nodes are changed, or "
                    "none. When the command was killed, or a node was lost, 'run resume' goes on "
                    "and 'run undo' goes back. What an unreachable node owes is paid by the next "
                    "run that reaches it.");
              },
          .verbs = {RunListVerb(), RunShowVerb(), RunLogVerb(), RunResumeVerb(), RunUndoVerb(),
                    RunWriteOffVerb(), RunPruneVerb(), RunSalvageVerb()},
          .files = {{"var/fleet.db", "the journal; the setting fleet_database names another one"}},
          .see_also = {"brefirctl-node(1)", "brefir-nodes(5)", "brefir.conf(5)"}};
}

}  // namespace tools
