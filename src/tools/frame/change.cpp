#include "tools/frame/change.h"

namespace tools {
namespace {

int ShowPlan(Context& context, const fleet::Plan& plan) {
  const std::string commands = fleet::CommandsOf(plan);
  if (commands.empty()) {
    context.out.Text("diff", fleet::DiffOf(plan));
  } else {
    context.out.Text("would", fleet::DiffOf(plan) + commands);
  }
  return kDone;
}

int AnswerCheck(Context& context, bool changes) {
  context.out.One(Record().Add("changed", changes));
  return changes ? kNo : kDone;
}

}  // namespace

int CarryOut(Context& context, const Change& change) {
  const bool changes = fleet::Changes(change.plan);
  if (context.values.Has("dry-run")) return ShowPlan(context, change.plan);
  if (context.values.Has("check")) return AnswerCheck(context, changes);
  Answer answer = change.make();
  for (Record& record : answer.records) record.Add("changed", changes);
  if (answer.is_list) {
    context.out.List(answer.records);
  } else {
    context.out.One(answer.records.front());
  }
  return kDone;
}

}  // namespace tools
