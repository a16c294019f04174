#include "fleet/fleet_database.h"
#include "fleet/node_names.h"
#include "fleet/selection.h"
#include "tools/commands/run/run.h"
#include "tools/frame/login.h"

namespace tools {
namespace {

/// Of the run, not of the inventory: it may no longer have them.
std::vector<std::string> NodesOf(const Context& context, const fleet::BookedRun& run) {
  std::string lines;
  for (const fleet::RunNode& node : run.nodes) lines += node.name + "\n";
  const std::string name = "run " + std::to_string(run.head.id);
  std::vector<std::string> names;
  AboutWord(fleet::kNodeName, "--nodes", [&] {
    const fleet::SelectionContext selection{.failed = FailedNodesOf, .dir = context.StartDir()};
    for (const fleet::Node& node : fleet::Select(fleet::Inventory::Parse(lines, name),
                                                 context.values.Str("nodes"), selection))
      names.push_back(node.name);
  });
  return names;
}

int WriteOff(Context& context) {
  fleet::Journal journal(fleet::OpenFleetDatabase());
  const fleet::BookedRun run = journal.Find(RunId(context));
  const std::string id = std::to_string(run.head.id);
  if (!fleet::IsEnd(run.head.state))
    throw pnl_err::Error(fleet::kRunBusy, id)
        .add_param("message", "run " + id + " is unfinished: end it with 'brefirctl run resume " +
                                  id + "' or 'brefirctl run undo " + id + "' first");
  std::vector<Record> records;
  bool any = false;
  for (const std::string& node : NodesOf(context, run)) {
    const bool done = journal.WriteOff(run.head.id, node, context.values.Str("reason"));
    any = any || done;
    records.push_back(Record().Add("node", node).Add("written_off", done));
  }
  if (!any)
    throw pnl_err::Missed("debt", context.values.Str("nodes"))
        .add_param("message", "none of these nodes owes anything in run " + id +
                                  ", or is in conflict: 'brefirctl run show " + id +
                                  "' shows their states");
  context.out.TellOfWork();
  context.out.List(std::move(records));
  return kDone;
}

void Describe(opts::Args& args) {
  AddRunId(args);
  args.Option("nodes")
      .Value("SELECTION")
      .Required()
      .Help("these nodes of the run; @all: all of them")
      .Completes("selections");
  args.Option("reason").Value("TEXT").Required().Help("why; it is kept in the journal");
  args.Details(
      "A node that could not be reached owes its undoing, or its cleaning up, to the run; a node "
      "in "
      "conflict has what somebody else has changed. After this command no later run pays for it, "
      "and the node stays as it is. If it comes back, 'run salvage' finds what the run has left "
      "there, as soon as the run is pruned from the journal.");
}

}  // namespace

Verb RunWriteOffVerb() {
  return {.name = "write-off",
          .summary = "Closes what nodes owe to a run, without touching them.",
          .describe = Describe,
          .run = WriteOff,
          .examples = {"17 --nodes web7 --reason 'scrapped on Monday'"},
          .fields = {{"node", "its name"}, {"written_off", "no if it owes nothing"}},
          .reach = Reach::kNothing};
}

}  // namespace tools
