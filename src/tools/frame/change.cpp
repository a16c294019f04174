#include "tools/frame/change.h"

#include <algorithm>

namespace tools {
namespace {

/// The part of the plan that concerns one node.
fleet::Plan Of(const fleet::Plan& plan, const std::string& node) {
  fleet::Plan part;
  std::copy_if(plan.begin(), plan.end(), std::back_inserter(part),
               [&](const fleet::Step& step) { return step.node == node; });
  return part;
}

/// The output of `tell` for the plan: one record, or a list with a record for each node.
template <class Tell>
void PrintOf(Context& context, const Change& change, const Tell& tell) {
  std::vector<Field> fields = PlanFields();
  if (!change.nodes.empty()) fields.push_back({"node", "the node"});
  context.out.SetFields(fields);
  if (change.nodes.empty()) return context.out.One(tell(Record(), change.plan));
  std::vector<Record> records;
  for (const std::string& node : change.nodes)
    records.push_back(tell(Record().Add("node", node), Of(change.plan, node)));
  context.out.List(records);
}

int ShowPlan(Context& context, const Change& change) {
  if (context.out.GetFormat() == Format::kTable) {
    context.out.Text("diff", fleet::DiffOf(change.plan) + fleet::WordsOf(change.plan));
    return kDone;
  }
  PrintOf(context, change, [](Record record, const fleet::Plan& plan) {
    return record.Add("diff", fleet::DiffOf(plan)).Add("would", fleet::WordsOf(plan));
  });
  return kDone;
}

int AnswerCheck(Context& context, const Change& change) {
  PrintOf(context, change, [](Record record, const fleet::Plan& plan) {
    return record.Add("changed", fleet::Changes(plan));
  });
  return fleet::Changes(change.plan) ? kNo : kDone;
}

}  // namespace

int CarryOut(Context& context, const Change& change) {
  if (context.OnlyShows()) return ShowPlan(context, change);
  if (context.values.HasAtAll("check")) return AnswerCheck(context, change);
  context.out.TellOfWork();
  Answer answer = change.make();
  for (Record& record : answer.records) {
    if (record.Find("changed") == nullptr) record.Add("changed", fleet::Changes(change.plan));
  }
  Print(context.out, answer);
  return answer.code;
}

std::vector<Field> PlanFields() {
  return {
      {"changed",
       "whether anything was changed or a command ran; with --check: whether there would be a "
       "change",
       "not with --dry-run"},
      {"diff", "the change of files, as a unified diff", "with --dry-run"},
      {"would", "the values that would be set and the commands that would run, one in each line",
       "with --dry-run"}};
}

}  // namespace tools
