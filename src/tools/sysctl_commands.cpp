// sysctl: kernel parameters, in /etc/sysctl.conf and in the kernel, here or on a node.

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <optional>

#include "brefir/simpleconfig.h"
#include "brefir/sysctl.h"
#include "fleet/diff.h"
#include "pnl/file.h"
#include "pnl/job.h"
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

// --- The host

/// This host or the node.
class Host {
 public:
  explicit Host(const Context& context) {
    if (context.values.Has("node")) ssh_.emplace(OpenNode(context));
  }

  std::shared_ptr<sysctl::ConnectionBase> Connection() const {
    return ssh_ ? sysctl::Remote(*ssh_) : sysctl::Local();
  }

  std::string Text() { return ssh_ ? NodeText(*ssh_, kConf) : pnl_file::Read(kConf); }

  /// None when the kernel has no such parameter, or does not let it be read.
  std::optional<std::string> Kernel(const std::string& name) {
    const std::string command = "sysctl -n " + pnl_proc::Escape(name);
    return ssh_ ? Answer(ssh_->Execute(command)) : Answer(pnl_proc::Execute(command));
  }

  /// Keeps two of these programs apart on this host.
  void Lock() {
    if (!ssh_) lock_.DoLockWithTimeout(kConf, true, kLockTimeout, kLockInterval);
  }

  /// Runs `write`, which turns the file's text from `before` into `after`.
  void Overwrite(const std::string& before, const std::string& after,
                 const std::function<void()>& write) {
    if (!ssh_) return write();
    OverwriteNodeFile(*ssh_, kConf, before, after, write);
  }

 private:
  template <class Run>
  static std::optional<std::string> Answer(Run&& run) {
    // The kernel separates the numbers of a list by tabs.
    const std::string output = str::Replace(str::Trim(run.Str()), "\t", " ");
    return run.Result() == 0 ? std::optional(output) : std::nullopt;
  }

  std::optional<pnl_rpc::SSH> ssh_;
  pnl_file::Lock lock_;
};

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
  Host host(context);
  const std::string text = host.Text();
  std::vector<Record> records;
  for (const std::string& name : context.values.List("NAME")) {
    const std::optional<std::string> kernel = host.Kernel(name);
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

/// Writes and loads the file, as a job of this thread's transaction.
void Load(Host& host, const std::string& before, const std::string& after,
          const StringMap& params) {
  host.Overwrite(before, after, [&] {
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the transaction owns it
    auto* conf = new sysctl::Conf(host.Connection());
    for (const auto& [name, value] : params) conf->SetParamValue(name, value);
    conf->Run();
    // Exit codes are not looked at: a full disk shows here, and the old text may still fit.
    if (host.Text() != after) pnl_job::Rollback();
  });
}

/// Brings the file's prior text back.
void Undo(Host& host, const std::string& before, const std::string& after) {
  host.Overwrite(after, before, [] { pnl_job::Rollback(); });
  if (host.Text() == before) return;
  throw pnl_err::Error("sysctl", "not_undone", kConf)
      .add_param("message", std::string("'") + kConf + "' could not be brought back; -v shows why");
}

/// What the kernel has now, as records for people; false when it did not take all of `params`.
bool ReadBack(Context& context, Host& host, const StringMap& params, const std::string& outcome) {
  bool all = true;
  std::vector<Record> records;
  for (const auto& [name, value] : params) {
    const std::optional<std::string> kernel = host.Kernel(name);
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
  Host host(context);
  const bool dry_run = context.values.Has("dry-run");
  if (!dry_run) host.Lock();
  const std::string before = host.Text();
  const std::string after = sysctl::Rewrite(before, params);
  if (dry_run) {
    context.out.Text("diff", fleet::UnifiedDiff(before, after, kConf));
    return kDone;
  }
  const bool keep = context.values.Has("keep");
  pnl_job::Transaction transaction;
  Load(host, before, after, params);
  const char* outcome = keep ? "keeps it" : "goes back to what it was";
  if (ReadBack(context, host, params, outcome) || keep) {
    transaction.Commit();
  } else {
    Undo(host, before, after);
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
