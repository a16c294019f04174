#include <cerrno>
#include <cstdlib>
#include <memory>

#include "brefir/sysctl.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"
#include "tools/commands/sysctl/sysctl.h"

namespace tools {
namespace {

using pnl_host::Host;

// --- Words

/// The words NAME=VALUE.
StringMap Params(const Context& context) {
  StringMap params;
  for (const std::string& word : context.values.List("PARAM")) {
    std::string value = word;
    const std::string name = str::GetWord(value, '=');
    if (name == word) throw UsageError("PARAM", word, "PARAM '" + word + "' is not NAME=VALUE");
    RequireParameterName(name);
    if (value.find('\n') != std::string::npos)
      throw UsageError("PARAM", word, "PARAM '" + name + "' must not hold a line end");
    params[name] = str::Trim(value);
  }
  return params;
}

// --- Values

/// A number in the way the kernel prints it.
std::string Normal(const std::string& word) {
  char* end = nullptr;
  errno = 0;
  const long long number = std::strtoll(word.c_str(), &end, 0);  // bases as the kernel reads them
  return !word.empty() && *end == '\0' && errno == 0 ? std::to_string(number) : word;
}

/// Word by word, as blanks between them do not count.
bool SameValue(std::string a, std::string b) {
  while (!a.empty() || !b.empty()) {
    if (Normal(str::GetWord(a)) != Normal(str::GetWord(b))) return false;
  }
  return true;
}

/// A parameter that was to be set.
struct Parameter {
  std::string name;
  std::string value;
  KernelValue before = {};
  KernelValue now = {};
  bool taken = false;
};

std::vector<Parameter> Parameters(Host& host, const StringMap& params) {
  std::vector<Parameter> parameters;
  for (const auto& [name, value] : params)
    parameters.push_back({.name = name, .value = value, .before = Kernel(host, name)});
  return parameters;
}

/// What sysctl(8) said of the parameter when it loaded the file; all it said when that names none.
std::string SaidOf(const std::string& name, std::string complaint) {
  const std::string all = str::Replace(complaint, "\n", "; ");
  const std::string path = str::Replace(name, ".", "/");
  std::string said;
  while (!complaint.empty()) {
    const std::string line = str::GetWord(complaint, '\n');
    if (line.find(name) != std::string::npos || line.find(path) != std::string::npos)
      said = str::Append(said, line, "; ");
  }
  return said.empty() ? all : said;
}

void TellNotTaken(Context& context, const Host& host, const Parameter& parameter,
                  const std::string& complaint, const char* outcome) {
  const std::string said = SaidOf(parameter.name, complaint);
  const std::string has = parameter.now.value
                              ? str::Append("it has '" + *parameter.now.value + "'", said, ": ")
                              : parameter.now.reason;
  context.Report(
      pnl_err::Error("sysctl", "not_taken", parameter.name)
          .add_param("message",
                     str::Format("%s: the kernel did not take %s = %s: %s; %s", host.Name(),
                                 parameter.name, parameter.value, has, outcome)));
}

/// The kernel gets back what it had.
void PutBack(Context& context, Host& host, std::vector<Parameter>& parameters) {
  for (Parameter& parameter : parameters) {
    if (!parameter.before.value || parameter.now.value == parameter.before.value) continue;
    const std::string word = parameter.name + "=" + *parameter.before.value;
    const pnl_host::Outcome run = host.Run(WithSbin("sysctl -w " + pnl_proc::Escape(word)));
    parameter.now = Kernel(host, parameter.name);
    if (parameter.now.value == parameter.before.value) continue;
    context.Report(pnl_err::Error("sysctl", "not_back", parameter.name)
                       .add_param("message", host.Name() + ": the kernel could not be given back " +
                                                 word + ": " + Said(run)));
  }
}

std::vector<Record> ToRecords(const std::vector<Parameter>& parameters) {
  std::vector<Record> records;
  for (const Parameter& parameter : parameters) {
    records.push_back(Record()
                          .Add("key", parameter.name)
                          .Add("value", parameter.value)
                          .Add("kernel", parameter.now.value)
                          .Add("taken", parameter.taken));
  }
  return records;
}

/// Loads the file. False when the kernel did not take every value, which is told with `outcome`.
bool Load(Context& context, Host& host, std::vector<Parameter>& parameters, const char* outcome) {
  const pnl_host::Outcome load = host.Run(WithSbin("sysctl -p"));  // what it did is read back
  bool all = true;
  for (Parameter& parameter : parameters) {
    parameter.now = Kernel(host, parameter.name);
    parameter.taken = parameter.now.value && SameValue(parameter.value, *parameter.now.value);
    all = all && parameter.taken;
    if (!parameter.taken) TellNotTaken(context, host, parameter, load.complaint, outcome);
  }
  return all;
}

// --- The verb

/// Puts the file back as it was.
void RestoreConf(Host& host, const pnl_host::Content& before, const std::string& after) {
  if (before) return ReplaceText(host, kSysctlConf, *before, after);
  OnHostFile(host, kSysctlConf, "remote_write", "removed",
             [&] { host.Remove(kSysctlConf, after); });
}

/// Makes file and kernel agree with `parameters`, or leaves both as they were.
void Make(Context& context, Host& host, const fleet::Step& file,
          std::vector<Parameter>& parameters) {
  if (fleet::Changes(file)) ReplaceText(host, kSysctlConf, *file.after, file.before);
  const bool keep = context.values.Has("keep");
  const char* outcome = keep ? "/etc/sysctl.conf keeps it"
                             : "/etc/sysctl.conf and the kernel go back to what they had";
  if (Load(context, host, parameters, outcome) || keep) return;
  PutBack(context, host, parameters);
  if (fleet::Changes(file)) RestoreConf(host, file.before, *file.after);
}

/// What the file and the kernel are to have.
fleet::Plan PlanOf(Host& host, const StringMap& params, const std::vector<Parameter>& parameters) {
  fleet::Step file{.node = host.Name(), .kind = fleet::StepKind::kFile, .object = kSysctlConf};
  OnHostFile(host, kSysctlConf, "remote_read", "read",
             [&] { file.before = host.Read(kSysctlConf); });
  file.after = sysctl::Rewrite(file.before.value_or(""), params);
  fleet::Plan plan = {file};
  for (const Parameter& parameter : parameters) {
    const std::optional<std::string>& has = parameter.before.value;
    const bool same = has && SameValue(parameter.value, *has);
    plan.push_back({.node = host.Name(),
                    .kind = fleet::StepKind::kValue,
                    .object = parameter.name,
                    .before = has,
                    .after = same ? has : parameter.value});
  }
  return plan;
}

Change Set(Context& context) {
  const StringMap params = Params(context);
  Host host = OpenHost(context);
  auto lock = LockForChange(context, host, kSysctlConf);
  std::vector<Parameter> parameters = Parameters(host, params);
  const fleet::Plan plan = PlanOf(host, params, parameters);
  const auto make = [=, &context, lock = std::move(lock)]() mutable -> Answer {
    Make(context, host, plan.front(), parameters);
    return ToRecords(parameters);
  };
  return {plan, make};
}

void Describe(opts::Args& args) {
  args.Details(
      "Each value is read back. When the kernel did not take one, the file goes back to what it "
      "was, and the kernel gets back what it had of all of them.");
  args.Positional("PARAM").Repeated().Help("what to set, NAME=VALUE");
  args.Option("keep")
      .Help("leave file and kernel as they are also when the kernel did not take a value")
      .Excludes("dry-run")
      .Excludes("check");
}

}  // namespace

Verb SysctlSetVerb() {
  return {.name = "set",
          .summary = "Sets parameters in the file and loads it.",
          .describe = Describe,
          .change = Set,
          .checks = true,
          .examples = {"net.ipv4.ip_forward=1 --dry-run"},
          .fields = {kParameter,
                     {"value", "what it was set to"},
                     kKernelField,
                     {"taken", "whether the kernel took it"}}};
}

}  // namespace tools
