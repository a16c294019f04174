#include "pnl/proc.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"
#include "tools/commands/node/node.h"

namespace tools {
namespace {

Change Move(Context& context) {
  const std::string from = MovablePath(context, "FROM");
  const std::string to = NodePath(context, "TO");
  pnl_rpc::SSH ssh = OpenNode(context, {"FROM", "TO"});
  RequireThere(ssh, from);
  const NodeTarget target(ssh, from, to);
  return CommandChange(
      {.ssh = ssh,
       .path = from,
       .type = "node",
       .done = "moved",
       .command = "mv -f " + pnl_proc::Escape(from) + " " + pnl_proc::Escape(target.word)},
      Record().Add("path", target.path).Add("from", from));
}

}  // namespace

Verb NodeMvVerb() {
  return {
      .name = "mv",
      .summary = "Moves a file or directory on the node.",
      .describe = DescribeFromTo,
      .change = Move,
      .examples = {"/srv/new /srv/www --node 192.0.2.7"},
      .fields = {kTargetField, {"from", "where it was"}},
  };
}

}  // namespace tools
