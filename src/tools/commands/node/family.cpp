// node: a managed node, through an SSH session.

#include "tools/commands/families.h"
#include "tools/commands/node/node.h"
#include "tools/frame/login.h"

namespace tools {

static void DescribeFamily(opts::Args& args) {
  args.Details(
      "The program logs in to the node over SSH, as root unless USER is given. Nothing has to be "
      "installed on the node. Its host key must be known; --accept-new stores the key of a new "
      "node. Paths on the node are absolute. Paths on this host may be relative.");
  AddNodeOptions(args);
}

Family NodeFamily() {
  return {.name = "node",
          .summary = "A managed server (node): its files, processes, operating system and panel.",
          .describe = DescribeFamily,
          .verbs = OnNodes({NodeExecVerb(),  NodeFactsVerb(),  NodeReadVerb(),      NodeWriteVerb(),
                            NodeStatVerb(),  NodeExistsVerb(), NodeTouchVerb(),     NodeMkdirVerb(),
                            NodeRmVerb(),    NodeMvVerb(),     NodeCpVerb(),        NodeLnVerb(),
                            NodeChmodVerb(), NodeGetVerb(),    NodePutVerb(),       NodeTreeVerb(),
                            NodeSyncVerb(),  NodeKillVerb(),   NodeTerminateVerb(), NodeCtlVerb()}),
          .files = {{"var/rsync-node-NODE.log", "the log of 'node sync'"}},
          .see_also = {"ssh(1)", "rsync(1)", "pnlctl(8)"}};
}

}  // namespace tools
