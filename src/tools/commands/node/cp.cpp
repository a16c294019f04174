#include "brefir/ssh_utils.h"
#include "pnl/proc.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"
#include "tools/commands/node/node.h"

namespace tools {
namespace {

namespace file = ssh_utils::file;

Change Copy(Context& context) {
  const std::string from = MovablePath(context, "FROM");
  const std::string to = NodePath(context, "TO");
  pnl_rpc::SSH ssh = OpenNode(context, {"FROM", "TO"});
  RequireThere(ssh, from);
  if (!file::Exists(ssh, from, "f"))
    throw NodeError(ssh, from, "'" + from + "' is no regular file; cp copies only such");
  const NodeTarget target(ssh, from, to);
  return CommandChange(
      {.ssh = ssh,
       .path = from,
       .type = "node",
       .done = "copied",
       .command = "cp -f " + pnl_proc::Escape(from) + " " + pnl_proc::Escape(target.word)},
      Record().Add("path", target.path).Add("from", from));
}

}  // namespace

Verb NodeCpVerb() {
  return {
      .name = "cp",
      .summary = "Copies a file on the node.",
      .describe = DescribeFromTo,
      .change = Copy,
      .examples = {"/etc/motd /root/ --node 192.0.2.7"},
      .fields = {kTargetField, {"from", "the original"}},
  };
}

}  // namespace tools
