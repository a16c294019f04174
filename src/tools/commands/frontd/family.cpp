// frontd: where the panel's web server listens, here or on a node.

#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "fleet/core_module.h"
#include "pnl/client.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/test.h"
#include "tools/commands/families.h"
#include "tools/commands/frontd/frontd.h"
#include "tools/commands/host_file.h"
#include "tools/frame/login.h"

namespace tools {
namespace {

using pnl_host::Host;

/// A path below the panel's directory, which is the same on the node.
std::string There(const char* name) {
  return pnl_file::ConcatPath(pnl_file::GetCurrentDir(), name);
}

pnl_err::Missed NoUtility(const std::string& host, const std::string& path) {
  return pnl_err::Missed("file", path)
      .add_param("message", host + ": there is no '" + path +
                                "'; the panel must be in the same directory there as here");
}

}  // namespace

FrontdCtl OpenPanel(Host host) {
  if (host.IsLocal()) return {};
  RequirePlain(pnl_file::GetCurrentDir(), "--prefix");
  const std::string utility = There(pnl_client::kUtility);
  if (host.Look(utility).kind != pnl_host::FileKind::kMissing) return FrontdCtl(*host.Session());
  throw NoUtility(host.Name(), utility);
}

std::string ListenIp(const Context& context) {
  const std::string& ip = context.values.Str("IP");
  if (test::Ip4(ip) || test::Ip6(ip)) return ip;
  throw UsageError("IP", ip,
                   "IP '" + ip + "' is not an IP address; write an IPv6 address without brackets");
}

opts::Arg& DescribePort(opts::Args& args) {
  constexpr int kMaxPort = 65535;
  return args.Positional("PORT").Number("PORT", 1, kMaxPort).Optional();
}

// --- Changes

/// Restarts the server; waits for the port, while the file has its line. When the change was undone,
/// nobody waits for it; nor where the server listened on none of its ports before.
static std::string RestartFor(const ListenChange& change, const std::string& conf) {
  if (change.line.empty()) return kRestart;
  const std::string file = pnl_proc::Escape(conf);
  const std::string port = std::to_string(change.port);
  return "listens() { cat /proc/net/tcp /proc/net/tcp6 2>/dev/null | "
         "grep -q \":$(printf %04X \"$1\") 0*:0000 0A \"; }; was=$(while read -r word ip port "
         "more; do "
         "[ \"$word\" = Listen ] && listens \"${port:-1500}\" 2>/dev/null && echo yes; done <" +
         file + "); " + kRestart + " || exit; n=0; while [ \"$was\" ] && grep -q " +
         pnl_proc::Escape("^ *" + change.line) + " " + file + " && ! listens " + port +
         "; do n=$((n+1)); [ $n -le 10 ] || { echo 'frontd does not listen on port " + port +
         " 10 seconds after its restart' >&2; exit 1; }; sleep 1; done";
}

/// The module of this process has one name for all threads.
static std::string Tried(const std::string& text, const std::function<void()>& work) {
  static std::mutex one_at_a_time;
  const std::scoped_lock lock(one_at_a_time);
  return fleet::TriedOnCopy(text, work);
}

static void RequireUtility(const fleet::Draft& draft, const std::string& utility) {
  if (draft.File(utility).kind != fleet::PathKind::kMissing) return;
  throw NoUtility(draft.HostName(), utility).add_param(fleet::kIsMissing, "1");
}

namespace {

/// The entries as the hosts have them after the run, by the hosts' names.
struct Seen {
  std::mutex mutex = {};
  std::map<std::string, Record> records = {};
};

}  // namespace

HostEdit ListenEdit(const Context& context, const ListenChange& change) {
  const bool here = !context.HasNodes();
  const std::string conf = There(fleet::kFrontdConf);
  const std::string utility = There(pnl_client::kUtility);
  const std::string restart = context.values.Has("restart") ? RestartFor(change, conf) : "";
  const auto seen = std::make_shared<Seen>();
  const auto make = [=](fleet::Draft& draft) -> Answer {
    if (!here) RequireUtility(draft, utility);
    std::optional<Record> record;
    const std::size_t count = draft.Count();
    const std::string after = Tried(draft.Text(conf).value_or(""), [&] {
      FrontdCtl copy;
      change.work(copy);
      record = change.answer(copy, here);
    });
    draft.Write(conf, after, {.by_lines = true});
    if (!restart.empty()) draft.Then(restart, count, kRestart);
    if (here) return *record;
    draft.Verify([=](Host& host) {
      FrontdCtl there(*host.Session());
      Record told = change.answer(there, true);
      const std::scoped_lock lock(seen->mutex);
      seen->records.insert_or_assign(host.Name(), std::move(told));
    });
    return *record;
  };
  const auto told = [seen](Answer& answer, const fleet::NodeReport& node) {
    const auto found = seen->records.find(node.name);
    if (found != seen->records.end()) answer.records = {found->second};
  };
  const auto look = [=](fleet::Looks& looks) {
    looks.texts.insert(conf);
    if (!here) looks.files.insert(utility);
  };
  return {.look = look, .make = make, .told = told};
}

void DescribeListenChange(opts::Args& args) {
  args.Option("restart").Help(
      "restart the server after the change, and wait up to 10 seconds until an added port answers; "
      "again when it is undone");
}

Family FrontdFamily() {
  const auto describe = [](opts::Args& args) {
    AddNodeOptions(args);
    args.Details(
        "On nodes, the panel must be in the same directory as here (--prefix).\n"
        "add, remove and restart are runs: all nodes get the change or none.");
  };
  return {.name = "frontd",
          .summary = "Listen addresses of frontd, the panel's web server, here or on nodes.",
          .describe = describe,
          .verbs = {FrontdListVerb(), FrontdAddVerb(), FrontdRemoveVerb(), FrontdListeningVerb(),
                    FrontdRestartVerb()},
          .files = {{fleet::kFrontdConf, "the listen addresses"}},
          .see_also = {"pnlctl(8)"}};
}

}  // namespace tools
