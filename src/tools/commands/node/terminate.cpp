#include "tools/commands/node/node.h"

namespace tools {

static Change Terminate(Context& context) {
  const int pid = Pid(context);
  const int term_wait = static_cast<int>(context.values.Int("term-wait"));
  const int kill_wait = static_cast<int>(context.values.Int("kill-wait"));
  const pnl_rpc::SSH ssh = OpenNode(context);
  const std::string number = std::to_string(pid);
  const std::string words = "kill -15 " + number + ", then kill -9 " + number + " if it stays";
  return ActChange(ssh.Host(), words, [=]() -> Answer {
    if (ssh_utils::Terminate(ssh, pid, term_wait, kill_wait))
      return Record().Add("pid", pid).Add("terminated", true);
    throw pnl_err::Error("node", "terminate", number)
        .add_param("message",
                   ssh.Host() + ": process " + number + " is still running after SIGKILL");
  });
}

static void DescribeTerminate(opts::Args& args) {
  DescribePid(args);
  args.Option("term-wait").Number("S", 0, 3600).Default("10").Help("seconds to wait after SIGTERM");
  args.Option("kill-wait").Number("S", 0, 3600).Default("5").Help("seconds to wait after SIGKILL");
}

Verb NodeTerminateVerb() {
  return {.name = "terminate",
          .summary = "Ends a process with SIGTERM; if it stays, with SIGKILL.",
          .describe = DescribeTerminate,
          .change = Terminate,
          .examples = {"4711 --term-wait 30 --node 192.0.2.7"},
          .fields = {kPidField, {"terminated", "true"}}};
}

}  // namespace tools
