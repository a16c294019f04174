#include "brefir/ssh_utils.h"
#include "tools/commands/login.h"
#include "tools/commands/node/node.h"

namespace tools {
namespace {

int Terminate(Context& context) {
  const int pid = Pid(context);
  const auto wait = [&](const char* option) {
    return static_cast<int>(context.values.Int(option));
  };
  pnl_rpc::SSH ssh = OpenNode(context);
  if (!ssh_utils::Terminate(ssh, pid, wait("term-wait"), wait("kill-wait"))) {
    throw pnl_err::Error("node", "terminate", std::to_string(pid))
        .add_param("message", ssh.Host() + ": process " + std::to_string(pid) +
                                  " is still there, also after SIGKILL");
  }
  context.out.One(Record().Add("pid", pid).Add("terminated", true));
  return kDone;
}

void DescribeTerminate(opts::Args& args) {
  DescribePid(args);
  args.Option("term-wait").Number("S", 0, 3600).Default("10").Help("seconds after SIGTERM");
  args.Option("kill-wait").Number("S", 0, 3600).Default("5").Help("seconds after SIGKILL");
}

}  // namespace

Verb NodeTerminateVerb() {
  return {
      .name = "terminate",
      .summary = "Ends a process, at last by force.",
      .describe = DescribeTerminate,
      .run = Terminate,
      .examples = {"4711 --term-wait 30 --node 192.0.2.7"},
      .fields = {kPidField, {"terminated", "true"}},
  };
}

}  // namespace tools
