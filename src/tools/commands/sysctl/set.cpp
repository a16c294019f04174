#include <memory>

#include "fleet/edits.h"
#include "tools/commands/host_file.h"
#include "tools/commands/sysctl/sysctl.h"
#include "tools/frame/login.h"

namespace tools {
namespace {

/// The words NAME=VALUE.
StringMap Params(const Context& context) {
  StringMap params;
  for (const std::string& word : context.values.List("PARAM")) {
    const auto [name, value] = Assignment(word, "PARAM");
    RequireParameterName(name);
    if (value.find('\n') != std::string::npos)
      throw UsageError("PARAM", word, "PARAM '" + name + "' must not contain a line end");
    params[name] = str::Trim(value);
  }
  return params;
}

const FieldTable<fleet::Parameter> kFields = {
    {kParameter, &fleet::Parameter::name},
    {{"value", "the requested value"}, &fleet::Parameter::value},
    {kKernelField, [](const fleet::Parameter& parameter) { return parameter.now.value; }},
    {{"taken", "whether the kernel took it"}, &fleet::Parameter::taken}};

Change Set(Context& context) {
  const StringMap params = Params(context);
  const pnl_host::Host host = OpenHost(context);
  auto lock = LockForChange(context, host, fleet::kSysctlConf);
  fleet::ParameterChange change(host, params);
  const auto make = [change, &context, lock = std::move(lock)]() mutable -> Answer {
    const bool keep = context.values.Has("keep");
    bool stays = true;  // otherwise all values are restored
    const auto report = [&](const pnl_err::Error& error) {
      stays = keep;
      context.Report(error);
    };
    std::vector<Record> records = ToRecords(kFields, change.Make({.keep = keep, .report = report}));
    for (Record& record : records) record.Add("changed", stays && fleet::Changes(change.GetPlan()));
    return records;
  };
  return {change.GetPlan(), make};
}

HostEdit Edit(Context& context) {
  const StringMap params = Params(context);
  fleet::Edit edit = fleet::ParametersEdit(params);
  return {.look = std::move(edit.look),
          .make = [params, make = std::move(edit.make)](fleet::Draft& draft) -> Answer {
            make(draft);
            std::vector<Record> records;
            for (const auto& [name, value] : params)
              records.push_back(Record()
                                    .Add("key", name)
                                    .Add("value", value)
                                    .Add("kernel", draft.Value(name))
                                    .Add("taken", true));
            return records;
          }};
}

void Describe(opts::Args& args) {
  args.Details(
      "Each value is read back. If the kernel did not take one, the file and all of these values "
      "in the kernel are restored.");
  args.Positional("PARAM").Repeated().Help("parameters to set, each NAME=VALUE");
  args.Option("keep")
      .Help("restore nothing, even if the kernel did not take a value")
      .Excludes("nodes")
      .Excludes("then")
      .Excludes("dry-run")
      .Excludes("check");
}

}  // namespace

Verb SysctlSetVerb() {
  return {.name = "set",
          .summary = "Sets parameters in the file and in the kernel.",
          .describe = Describe,
          .edit = Edit,
          .change = Set,
          .no_run = [](const opts::Values& words) -> std::string {
            return words.Has("keep") ? "with --keep it cannot be undone" : "";
          },
          .examples = {"net.ipv4.ip_forward=1 --dry-run"},
          .fields = Declared(kFields)};
}

}  // namespace tools
