#include <algorithm>

#include "fleet/fleet_database.h"
#include "tools/commands/run/run.h"

namespace tools {
namespace {

Record Event(std::time_t time, const char* event) {
  return Record().Add("time", pnl_date::DateTime(time)).Add("event", event);
}

std::vector<Record> Events(const fleet::BookedRun& run) {
  std::vector<Record> events = {
      Event(run.head.begun, "begun")
          .Add("node", Value())
          .Add("state", Value())
          .Add("text", run.head.command + " (" + run.head.user + " on " + run.head.host + ")")};
  std::vector<const fleet::RunNode*> nodes;
  for (const fleet::RunNode& node : run.nodes)
    if (node.noted != 0) nodes.push_back(&node);
  std::stable_sort(nodes.begin(), nodes.end(),
                   [](const auto* a, const auto* b) { return a->noted < b->noted; });
  for (const fleet::RunNode* node : nodes)
    events.push_back(Event(node->noted, "node")
                         .Add("node", node->name)
                         .Add("state", fleet::ToText(node->state))
                         .Add("text", node->reason.empty() ? Value() : Value(node->reason)));
  if (run.head.ended != 0)
    events.push_back(Event(run.head.ended, "ended")
                         .Add("node", Value())
                         .Add("state", fleet::ToText(run.head.state))
                         .Add("text", Value()));
  return events;
}

int Log(Context& context) {
  const fleet::Journal journal(fleet::OpenFleetDatabase());
  context.out.List(Events(journal.Find(RunId(context))));
  return kDone;
}

}  // namespace

Verb RunLogVerb() {
  return {.name = "log",
          .summary = "Lists what the journal has of a run: one line for each event.",
          .describe =
              [](opts::Args& args) {
                AddRunId(args);
                args.Details("Of each node, the journal has the last event only.");
              },
          .run = Log,
          .examples = {"17"},
          .fields = {{"time", "when it was written into the journal"},
                     {"event", "begun, node or ended"},
                     {"node", "whose state it is, or null"},
                     {"state", "of the node, or of the run at its end"},
                     {"text", "the command, or the reason of the state"}},
          .reach = Reach::kNothing};
}

}  // namespace tools
