// frontd: where the panel's web server listens, here or on a node.

#include "fleet/core_module.h"
#include "pnl/client.h"
#include "pnl/file.h"
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

}  // namespace

FrontdCtl OpenPanel(Host host) {
  if (host.IsLocal()) return {};
  RequirePlain(pnl_file::GetCurrentDir(), "--prefix");
  const std::string utility = There(pnl_client::kUtility);
  if (host.Look(utility).kind != pnl_host::FileKind::kMissing) return FrontdCtl(*host.Session());
  throw pnl_err::Missed("file", utility)
      .add_param("message", host.Name() + ": there is no '" + utility +
                                "'; the panel must be in the same directory there as here");
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

Change ChangeListen(const Context& context, const ListenChange& change) {
  Host host = OpenHost(context);
  FrontdCtl frontd = context.OnlyPlans() ? FrontdCtl() : OpenPanel(host);
  const bool restart = context.values.Has("restart");
  fleet::Step file{.node = host.Name(),
                   .kind = fleet::StepKind::kFile,
                   .object = host.IsLocal() ? fleet::kFrontdConf : There(fleet::kFrontdConf)};
  file.before = HostContent(host, file.object);
  file.after = fleet::TriedOnCopy(file.before.value_or(""), [&] {
    FrontdCtl copy;
    change.work(copy, false);
  });
  fleet::Plan plan = {file};
  if (restart) plan.push_back(fleet::RestartStep(host));
  const auto make = [=]() mutable -> Answer {
    change.work(frontd, !host.IsLocal());
    if (restart) fleet::RestartFrontd(host, "; the change of its listen addresses stays");
    return change.answer(frontd);
  };
  return {plan, make};
}

void DescribeListenChange(opts::Args& args) {
  args.Option("restart").Help("restart the server after the change").Excludes("check");
}

Family FrontdFamily() {
  const auto describe = [](opts::Args& args) {
    AddNodeOptions(args);
    args.Details(
        "With --node, the panel must be in the same directory on the node as here (--prefix).");
  };
  return {.name = "frontd",
          .summary = "Listen addresses of frontd, the panel's web server, here or on a node.",
          .describe = describe,
          .verbs = {FrontdListVerb(), FrontdAddVerb(), FrontdRemoveVerb(), FrontdListeningVerb(),
                    FrontdRestartVerb()},
          .files = {{fleet::kFrontdConf, "the listen addresses"}},
          .see_also = {"pnlctl(8)"}};
}

}  // namespace tools
