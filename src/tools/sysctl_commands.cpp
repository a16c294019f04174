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

/// What the kernel has of a parameter.
struct KernelValue {
  std::optional<std::string> value;  ///< none: it has no such parameter, or does not let it be read
  std::string reason;                ///< why there is none
};

KernelValue Kernel(Host& host, const std::string& name) {
  const pnl_host::Outcome run = host.Run(WithSbin("sysctl -n " + pnl_proc::Escape(name)));
  if (run.code != 0) return {std::nullopt, Said(run)};
  // The kernel separates the numbers of a list by tabs.
  return {str::Replace(str::Trim(run.output), "\t", " "), ""};
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
    const KernelValue kernel = Kernel(host, name);
    if (!kernel.value) {
      context.Report(pnl_err::Missed("parameter", name)
                         .add_param("message", host.Name() + ": parameter '" + name +
                                                   "' cannot be read: " + kernel.reason));
    }
    records.push_back(
        Record().Add("key", name).Add("file", InFile(text, name)).Add("kernel", kernel.value));
  }
  context.out.List(records);
  return kDone;
}

/// A parameter that was to be set.
struct Change {
  std::string name;
  std::string value;
  KernelValue before = {};
  KernelValue now = {};
  bool taken = false;
};

std::vector<Change> Changes(Host& host, const StringMap& params) {
  std::vector<Change> changes;
  for (const auto& [name, value] : params)
    changes.push_back({.name = name, .value = value, .before = Kernel(host, name)});
  return changes;
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

void TellNotTaken(Context& context, const Host& host, const Change& change,
                  const std::string& complaint, const char* outcome) {
  const std::string said = SaidOf(change.name, complaint);
  const std::string has = change.now.value
                              ? str::Append("it has '" + *change.now.value + "'", said, ": ")
                              : change.now.reason;
  context.Report(
      pnl_err::Error("sysctl", "not_taken", change.name)
          .add_param("message", str::Format("%s: the kernel did not take %s = %s: %s; %s",
                                            host.Name(), change.name, change.value, has, outcome)));
}

/// The kernel gets back what it had.
void PutBack(Context& context, Host& host, std::vector<Change>& changes) {
  for (Change& change : changes) {
    if (!change.before.value || change.now.value == change.before.value) continue;
    const std::string word = change.name + "=" + *change.before.value;
    const pnl_host::Outcome run = host.Run(WithSbin("sysctl -w " + pnl_proc::Escape(word)));
    change.now = Kernel(host, change.name);
    if (change.now.value == change.before.value) continue;
    context.Report(pnl_err::Error("sysctl", "not_back", change.name)
                       .add_param("message", host.Name() + ": the kernel could not be given back " +
                                                 word + ": " + Said(run)));
  }
}

void List(Context& context, const std::vector<Change>& changes) {
  std::vector<Record> records;
  records.reserve(changes.size());
  for (const Change& change : changes) {
    records.push_back(Record()
                          .Add("key", change.name)
                          .Add("value", change.value)
                          .Add("kernel", change.now.value)
                          .Add("taken", change.taken));
  }
  context.out.List(records);
}

/// Loads the file. False when the kernel did not take every value, which is told with `outcome`.
bool Load(Context& context, Host& host, std::vector<Change>& changes, const char* outcome) {
  const pnl_host::Outcome load = host.Run(WithSbin("sysctl -p"));  // what it did is read back
  bool all = true;
  for (Change& change : changes) {
    change.now = Kernel(host, change.name);
    change.taken = change.now.value && SameValue(change.value, *change.now.value);
    all = all && change.taken;
    if (!change.taken) TellNotTaken(context, host, change, load.complaint, outcome);
  }
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
  std::vector<Change> changes = Changes(host, params);
  ReplaceText(host, kConf, after, before);
  const bool keep = context.values.Has("keep");
  const char* outcome = keep ? "/etc/sysctl.conf keeps it"
                             : "/etc/sysctl.conf and the kernel go back to what they had";
  if (!Load(context, host, changes, outcome) && !keep) {
    PutBack(context, host, changes);
    if (before) {
      ReplaceText(host, kConf, *before, after);
    } else {
      OnHostFile(host, kConf, "remote_write", "removed", [&] { host.Remove(kConf, after); });
    }
  }
  List(context, changes);
  return kDone;
}

// --- The command line

const Field kKeyField = {"key", "the parameter"};
const Field kKernelField = {"kernel", "what the kernel has by now; null when it has none"};

void DescribeGet(opts::Args& args) {
  args.Positional("NAME").Repeated().Help("a kernel parameter: net.ipv4.ip_forward");
}

void DescribeSet(opts::Args& args) {
  args.Details(
      "Each value is read back. When the kernel did not take one, the file goes back to what it "
      "was, and the kernel gets back what it had of all of them.");
  args.Positional("PARAM").Repeated().Help("what to set, NAME=VALUE");
  args.Option("keep")
      .Help("leave file and kernel as they are also when the kernel did not take a value")
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
             {"taken", "whether the kernel took it"},
             kDiffField}}},
          {{"/etc/sysctl.conf", "the file"}},
          {"sysctl(8)", "sysctl.conf(5)"}};
}

}  // namespace tools
