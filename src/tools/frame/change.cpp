#include "tools/frame/change.h"

#include <algorithm>

#include "brefir/str_utils.h"
#include "fleet/fleet_database.h"
#include "fleet/last_change.h"
#include "pnl/log.h"
#include "tools/frame/ask.h"
#include "tools/frame/login.h"

namespace tools {
namespace {

pnl_log::Module log_module("change");

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

/// Words of the command line that name what was changed. All others may be values or secrets.
constexpr const char* kNames[] = {"MODULE", "FUNCTION", "REPO", "REMOTE", "FROM",
                                  "TO",     "TARGET",   "PATH", "FILE",   "KEY",
                                  "NAME",   "ID",       "IP",   "PORT",   "PID"};

/// "node write /etc/motd", "sysctl set net.ipv4.ip_forward".
std::string InShort(const Context& context, const Change& change) {
  std::string text = str::Join(context.values.Command(), " ");
  for (const char* name : kNames) {
    if (!context.values.HasAtAll(name)) continue;
    text = str::Append(text, str::Join(context.values.List(name), " "), " ");
  }
  for (const fleet::Step& step : change.plan) {
    if (step.kind == fleet::StepKind::kValue) text += " " + step.object;
  }
  return text;
}

/// The change is made: that it cannot be noted does not concern the one who made it.
void Note(Context& context, const Change& change, const Answer& answer) {
  const auto made = [](const Record& record) {
    const Value* const changed = record.Find("changed");
    const bool* const flag = changed == nullptr ? nullptr : std::get_if<bool>(&changed->Get());
    return flag != nullptr && *flag;
  };
  const auto there = [](const fleet::Step& step) {
    return step.node != "localhost" && fleet::Changes(step);
  };
  if (!context.values.HasAtAll("node") ||
      std::none_of(answer.records.begin(), answer.records.end(), made) ||
      std::none_of(change.plan.begin(), change.plan.end(), there))
    return;
  context.out.Flush();  // nobody waits for a slow database
  try {
    fleet::NoteChange(*fleet::OpenFleetDatabase(), NameOf(NodeOptions(context)),
                      InShort(context, change));
  } catch (const pnl_err::Error& error) {
    PNL_LOG(log_module, 4, "The change is not noted: %s", ErrorText(error, Format::kTable).c_str());
  }
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
  Note(context, change, answer);
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
