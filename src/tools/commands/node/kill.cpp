#include "tools/commands/node/node.h"

namespace tools {

static Change Kill(Context& context) {
  const int pid = Pid(context);
  const int number = static_cast<int>(context.values.Int("signal"));
  const std::string words = "kill -" + std::to_string(number) + " " + std::to_string(pid);
  const pnl_rpc::SSH ssh = OpenNode(context);
  return ActChange(ssh.Host(), words, [=]() -> Answer {
    const pnl_host::Outcome run = pnl_host::Host(ssh).Run(words);
    if (run.code == 0)
      return Record().Add("pid", pid).Add("signal", number).Add("changed", number != 0);
    throw pnl_err::Missed("process", std::to_string(pid))
        .add_param("message", ssh.Host() + ": cannot send a signal to process " +
                                  std::to_string(pid) + ": " + Said(run));
  });
}

static void DescribeKill(opts::Args& args) {
  DescribePid(args);
  args.Option("signal")
      .Number("N", 0, 64)
      .Default("15")
      .Help("the number of the signal; 0 only checks whether the process exists");
}

Verb NodeKillVerb() {
  return {.name = "kill",
          .summary = "Sends a signal to a process.",
          .describe = DescribeKill,
          .change = Kill,
          .examples = {"4711 --signal 1 --node 192.0.2.7"},
          .fields = {kPidField, {"signal", "the number of the signal"}}};
}

}  // namespace tools
