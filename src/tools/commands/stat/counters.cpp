#include "brefir/stat_raw.h"
#include "fleet/sample_store.h"
#include "tools/commands/stat/stat.h"
#include "tools/frame/login.h"

namespace tools {
namespace {

struct LastValue {
  std::string name;
  std::string cname;
  std::int64_t value;
};

const FieldTable<LastValue> kFields = {
    {{"name", "node and device, with a colon between them", "not of reset"}, &LastValue::name},
    {{"cname", "the counter", "not of reset"}, &LastValue::cname},
    {{"value", "the last value in the kernel", "not of reset"}, &LastValue::value}};

/// Those of the words NAME and CNAME, or of all.
std::vector<LastValue> Named(const Context& context) {
  const std::string& wanted = context.values.Str("NAME");
  const std::string& counter = context.values.Str("CNAME");
  counter::Cache counters;
  counters.Load();
  std::vector<LastValue> found;
  for (const auto& [name, values] : counters.GetCounters()) {
    if (!wanted.empty() && wanted != name) continue;
    for (const auto& [cname, value] : values)
      if (counter.empty() || counter == cname) found.push_back({name, cname, value.Val()});
  }
  return found;
}

int List(Context& context) {
  std::vector<Record> records;
  for (const LastValue& value : Named(context)) records.push_back(ToRecord(kFields, value));
  context.out.List(records);
  return kDone;
}

int Get(Context& context) {
  const std::string& name = context.values.Str("NAME");
  const std::string& cname = context.values.Str("CNAME");
  if (cname.empty())
    throw UsageError("CNAME", "", "'counters get' needs NAME and CNAME; see 'counters list'");
  const std::vector<LastValue> found = Named(context);
  if (found.empty()) throw pnl_err::Missed("counter", name + " " + cname);
  context.out.One(ToRecord(kFields, found.front()));
  return kDone;
}

Change Reset(Context& context) {
  fleet::Plan plan;
  for (const auto& [name, cname, value] : Named(context))
    plan.push_back({.node = "localhost",
                    .kind = fleet::StepKind::kValue,
                    .object = str::Append(name, cname, " "),
                    .before = std::to_string(value)});
  const auto make = [&context]() -> Answer {
    fleet::SampleStore store(fleet::OpenStatDatabase());
    return Record().Add("reset",
                        store.Reset(context.values.Str("NAME"), context.values.Str("CNAME")));
  };
  return {plan, make};
}

int Counters(Context& context) {
  const std::string& action = context.values.Str("ACTION");
  if (action == "reset") return CarryOut(context, Reset(context));
  return action == "list" ? List(context) : Get(context);
}

void Describe(opts::Args& args) {
  args.Details(
      "'reset' removes the last values of all counters, or only those of NAME. The next sample is "
      "then a new starting point.");
  args.Positional("ACTION").OneOf({"list", "get", "reset"}).Help("what to do");
  args.Positional("NAME").Optional().Help("the node and the device, such as localhost:eth0");
  args.Positional("CNAME").Optional().Help("the counter, such as rx_bytes");
  AddPlanOptions(args, true);
}

}  // namespace

Verb StatCountersVerb() {
  return {.name = "counters",
          .summary = "Shows or resets the last values in var/stat.counters.",
          .describe = Describe,
          .run = Counters,
          .examples = {"list localhost:eth0", "reset --dry-run"},
          .fields = Declared(
              kFields, Fields({{"reset", "number of values removed", "of reset"}}, PlanFields()))};
}

}  // namespace tools
