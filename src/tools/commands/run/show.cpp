#include "fleet/draft.h"
#include "fleet/fleet_database.h"
#include "fleet/gather.h"
#include "tools/commands/run/run.h"

namespace tools {
namespace {

/// What the step is about, in a word.
std::string KindOf(const fleet::RunStep& step) {
  switch (step.form) {
    case fleet::StepForm::kMove:
      return "move";
    case fleet::StepForm::kCopy:
      return "copy";
    case fleet::StepForm::kParameter:
      return "parameter";
    case fleet::StepForm::kCommand:
      return "command";
    case fleet::StepForm::kService:
      return "service";
    case fleet::StepForm::kPackages:
      return "packages";
    case fleet::StepForm::kLate:
      return "later";
    case fleet::StepForm::kPath:
      break;
  }
  if (step.after.kind == fleet::PathKind::kMissing) return "removal";
  if (step.before.SameContent(step.after)) return step.after.time ? "time" : "attributes";
  if (step.after.kind == fleet::PathKind::kDirectory) return "directory";
  return step.after.kind == fleet::PathKind::kLink ? "link" : "file";
}

std::string DiffOf(const fleet::RunNode& node) {
  const fleet::Plan plan = fleet::PlanOf(node.name, node.steps);
  return fleet::DiffOf(plan) + fleet::WordsOf(plan);
}

/// Whether nobody has heard of the node since it began to make the run under a guard.
bool IsGuarded(const fleet::RunHead& run, const fleet::RunNode& node) {
  return node.state == fleet::NodeRunState::kMaking &&
         fleet::RunPolicy::Read(run.policy).guard != 0;
}

Record NodeRecord(const fleet::RunHead& run, const fleet::RunNode& node, bool diff) {
  std::vector<Record> steps;
  for (const fleet::RunStep& step : node.steps) {
    steps.push_back(Record().Add("kind", KindOf(step)).Add("object", step.object));
    if (!step.from.empty()) steps.back().Add("from", step.from);
  }
  Record record =
      Record()
          .Add("node", node.name)
          .Add("state", fleet::ToText(node.state))
          .Add("reason", node.reason.empty() ? Value() : Value(node.reason))
          .Add("noted", node.noted == 0 ? Value() : Value(pnl_date::DateTime(node.noted)))
          .Add("guarded", IsGuarded(run, node))
          .Add("steps", std::move(steps));
  if (diff) record.Add("diff", DiffOf(node));
  return record;
}

/// Without its name, so that equal nodes fold.
std::string NodeText(const fleet::RunHead& run, const fleet::RunNode& node, bool diff) {
  std::string text = str::Append(fleet::ToText(node.state), node.reason, ": ") + "\n";
  if (IsGuarded(run, node))
    text += "    its guard is armed, or has put it back: 'node status' knows which\n";
  if (diff) return text + DiffOf(node);
  for (const fleet::RunStep& step : node.steps)
    text += "    " + KindOf(step) + " " + (step.from.empty() ? "" : step.from + " -> ") +
            step.object + "\n";
  return text;
}

std::string TextOf(const fleet::BookedRun& run, bool diff) {
  std::vector<std::string> names, texts;
  for (const fleet::RunNode& node : run.nodes) {
    names.push_back(node.name);
    texts.push_back(NodeText(run.head, node, diff));
  }
  std::string text;
  for (const fleet::Gathered& group : fleet::Gather(names, texts))
    text += group.names + ": " + group.answer;
  return text;
}

int Show(Context& context) {
  const std::int64_t id = RunId(context);
  const fleet::Journal journal(fleet::OpenFleetDatabase());
  const fleet::BookedRun run = journal.Find(id);
  const bool diff = context.values.Has("diff");
  Record record = ToRecord(RunFields(), CountedRun{run.head, journal.NodeCounts({id})[id]});
  if (context.out.ForPeople() && !context.out.IsShaped()) {
    context.out.One(record);
    context.out.Plain(TextOf(run, diff));
    return kDone;
  }
  std::vector<Record> nodes;
  for (const fleet::RunNode& node : run.nodes) nodes.push_back(NodeRecord(run.head, node, diff));
  for (auto& [name, value] : record.fields)
    if (name == "nodes") value = nodes;
  context.out.One(record);
  return kDone;
}

}  // namespace

Verb RunShowVerb() {
  return {.name = "show",
          .summary = "Shows a run, and what became of each node.",
          .describe =
              [](opts::Args& args) {
                AddRunId(args);
                args.Option("diff").Help("show what it changes, as unified diffs and commands");
                args.Details(
                    "Nodes with the same state and the same steps are shown together. For "
                    "programs, the field nodes is a list with node, state, reason, noted (when it "
                    "came into that state), guarded (it was making under a guard when it was last "
                    "heard of), steps (kind, object, from) and, with --diff, diff. "
                    "The content of what was declared secret is not in the journal.");
              },
          .run = Show,
          .examples = {"17", "17 --diff"},
          .fields = Declared(RunFields()),
          .reach = Reach::kNothing};
}

}  // namespace tools
