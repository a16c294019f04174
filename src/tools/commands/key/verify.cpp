#include "tools/commands/key/key.h"
#include "tools/frame/login.h"

namespace tools {

static int Verify(Context& context) {
  const fleet::KeySetup setup = ReadKeySetup(context);
  const auto screen = std::make_shared<NodeScreen>(context, setup.nodes);
  fleet::NodeWork work(setup.nodes, WatchOn(screen));
  work.Visit([&](const std::string& node) {
    pnl_rpc::SSH ssh = fleet::LogIn(setup, node, setup.private_key);
    if (ssh.Execute("true").Result() != 0)
      throw NodeError(ssh, "", "the login works, but the command 'true' fails");
    return fleet::NodeState::kAccepted;
  });
  context.out.List(screen->table.Records());
  return work.Failed() ? kFailed : kDone;
}

Verb KeyVerifyVerb() {
  return {.name = "verify",
          .summary = "Shows which nodes accept the present key.",
          .run = Verify,
          .examples = {"--nodes etc/nodes"},
          .fields = Declared(console::kNodeFields)};
}

}  // namespace tools
