// sysctl: kernel parameters, in /etc/sysctl.conf and in the kernel, here or on a node.

#include <cerrno>
#include <cstdlib>
#include <optional>

#include "brefir/simpleconfig.h"
#include "brefir/sysctl.h"
#include "fleet/diff.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "tools/commands.h"
#include "tools/node.h"
#include "tools/node_file.h"

namespace tools {
namespace {

constexpr const char* kConf = "/etc/sysctl.conf";
// Seconds.
constexpr int kLockTimeout = 3;
constexpr int kLockInterval = 1;

using pnl_host::Host;

/// None when the kernel has no such parameter, or does not let it be read.
std::optional<std::string> Kernel(Host& host, const std::string& name) {
  const pnl_host::Outcome run = host.Run("sysctl -n " + pnl_proc::Escape(name));
  if (run.code != 0) return std::nullopt;
  // The kernel separates the numbers of a list by tabs.
  return str::Replace(str::Trim(run.output), "\t", " ");
}

// --- Words

/// A name becomes a path below /proc/sys, in which "." and "/" change places.
void RequireName(const std::string& name) {
  constexpr const char* kLetters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-:@./";
  bool good = name.find_first_not_of(kLetters) == std::string::npos;
  bool joint = true;  // at a place where a part has to begin
  for (const char c : name) {
    const bool dot = c == '.' || c == '/';
    good = good && !(joint && (dot || c == '-'));
    joint = dot;
  }
  if (good && !joint) return;
  throw UsageError("NAME", name,
                   "NAME '" + name + "' is no kernel parameter: net.ipv4.ip_forward is one");
}

/// The words NAME=VALUE.
StringMap Params(const Context& context) {
  StringMap params;
  for (const std::string& word : context.values.List("PARAM")) {
    std::string value = word;
    const std::string name = str::GetWord(value, '=');
    if (name == word) throw UsageError("PARAM", word, "PARAM '" + word + "' is not NAME=VALUE");
    RequireName(name);
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

/// The value that loading the file sets: that of the last line.
Value InFile(const std::string& text, const std::string& name) {
  Value value;
  for (const utils::lines::Entry& entry : utils::lines::List(text, "", {"", "=", ""})) {
    if (entry.key == name) value = entry.value;
  }
  return value;
}

// --- Verbs

int Get(Context& context) {
  for (const std::string& name : context.values.List("NAME")) RequireName(name);
  Host host = OpenHost(context);
  const std::string text = HostTextOrNone(host, kConf);
  std::vector<Record> records;
  for (const std::string& name : context.values.List("NAME")) {
    const std::optional<std::string> kernel = Kernel(host, name);
    if (!kernel) {
      context.Report(
          pnl_err::Missed("parameter", name)
              .add_param("message", "the kernel has no parameter '" + name + "' that can be read"));
    }
    records.push_back(
        Record().Add("key", name).Add("file", InFile(text, name)).Add("kernel", kernel));
  }
  context.out.List(records);
  return kDone;
}

/// What the kernel has now, as records for people; false when it did not take all of `params`.
bool ReadBack(Context& context, Host& host, const StringMap& params, const std::string& outcome) {
  bool all = true;
  std::vector<Record> records;
  for (const auto& [name, value] : params) {
    const std::optional<std::string> kernel = Kernel(host, name);
    const bool taken = kernel && SameValue(value, *kernel);
    all = all && taken;
    records.push_back(
        Record().Add("key", name).Add("value", value).Add("kernel", kernel).Add("taken", taken));
    if (taken) continue;
    const std::string has = kernel ? "it has '" + *kernel + "'" : "it has no such parameter";
    const std::string message =
        str::Format("the kernel did not take %s = %s: %s; %s %s", name, value, has, kConf, outcome);
    context.Report(pnl_err::Error("sysctl", "not_taken", name).add_param("message", message));
  }
  context.out.List(records);
  return all;
}

int Set(Context& context) {
  const StringMap params = Params(context);
  Host host = OpenHost(context);
  const bool dry_run = context.values.Has("dry-run");
  pnl_file::Lock lock;  // keeps two of these programs apart
  if (!dry_run && host.IsLocal()) lock.DoLockWithTimeout(kConf, true, kLockTimeout, kLockInterval);
  pnl_host::Content before;
  OnHostFile(host, kConf, "remote_read", "read", [&] { before = host.Read(kConf); });
  const std::string after = sysctl::Rewrite(before.value_or(""), params);
  if (dry_run) {
    context.out.Text("diff", fleet::UnifiedDiff(before.value_or(""), after, kConf));
    return kDone;
  }
  ReplaceText(host, kConf, after, before);
  host.Do("sysctl -p");  // what it did is read back
  const bool keep = context.values.Has("keep");
  const char* outcome = keep ? "keeps it" : "goes back to what it was";
  if (ReadBack(context, host, params, outcome) || keep) return kDone;
  if (before) {
    ReplaceText(host, kConf, *before, after);
  } else {
    OnHostFile(host, kConf, "remote_write", "removed", [&] { host.Remove(kConf, after); });
  }
  return kDone;
}

// --- The command line

const Field kKeyField = {"key", "the parameter"};
const Field kKernelField = {"kernel", "what the kernel has; null when it has none"};

void DescribeGet(opts::Args& args) {
  args.Positional("NAME").Repeated().Help("a kernel parameter: net.ipv4.ip_forward");
}

void DescribeSet(opts::Args& args) {
  args.Details(
      "Each value is read back. When the kernel did not take one, the file goes back to what it "
      "was; values that the kernel took stay until the next load.");
  args.Positional("PARAM").Repeated().Help("what to set, NAME=VALUE");
  args.Option("keep")
      .Help("leave the file as written also when the kernel did not take a value")
      .Excludes("dry-run");
  args.Option("dry-run").Help("show the change of the file as a diff");
}

void DescribeFamily(opts::Args& args) {
  AddNodeOptions(args);
}

}  // namespace

Family SysctlFamily() {
  return {"sysctl",
          "Kernel parameters in /etc/sysctl.conf and in the kernel, here or on a node.",
          DescribeFamily,
          {{"get",
            "Tells what the file says and what the kernel has.",
            DescribeGet,
            Get,
            {"net.ipv4.ip_forward", "net.ipv4.ip_forward vm.swappiness --node 192.0.2.7"},
            {kKeyField, {"file", "what the file says; null when it says nothing"}, kKernelField}},
           {"set",
            "Sets parameters in the file and loads it.",
            DescribeSet,
            Set,
            {"net.ipv4.ip_forward=1 --dry-run"},
            {kKeyField,
             {"value", "what it was set to"},
             kKernelField,
             {"taken", "whether both are the same"},
             kDiffField}}},
          {{"/etc/sysctl.conf", "the file"}},
          {"sysctl(8)", "sysctl.conf(5)"}};
}

}  // namespace tools
