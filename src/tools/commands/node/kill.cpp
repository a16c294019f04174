#include "tools/commands/host_file.h"
#include "tools/commands/login.h"
#include "tools/commands/node/node.h"

namespace tools {
namespace {

int Kill(Context& context) {
  const int pid = Pid(context);
  const int number = static_cast<int>(context.values.Int("signal"));
  pnl_rpc::SSH ssh = OpenNode(context);
  const pnl_host::Outcome run =
      pnl_host::Host(ssh).Run("kill -" + std::to_string(number) + " " + std::to_string(pid));
  if (run.code != 0) {
    throw pnl_err::Missed("process", std::to_string(pid))
        .add_param("message", ssh.Host() + ": there is no process " + std::to_string(pid) +
                                  " that can be signalled: " + Said(run));
  }
  context.out.One(Record().Add("pid", pid).Add("signal", number));
  return kDone;
}

void DescribeKill(opts::Args& args) {
  DescribePid(args);
  args.Option("signal").Number("N", 0, 64).Default("15").Help("the signal; 0 only asks");
}

}  // namespace

Verb NodeKillVerb() {
  return {
      .name = "kill",
      .summary = "Sends a signal to a process.",
      .describe = DescribeKill,
      .run = Kill,
      .examples = {"4711 --signal 1 --node 192.0.2.7"},
      .fields = {kPidField, {"signal", "its number"}},
  };
}

}  // namespace tools
