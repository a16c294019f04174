// node: a managed node, through an SSH session.

#include "tools/commands/families.h"
#include "tools/commands/login.h"
#include "tools/commands/node/node.h"

namespace tools {

static void DescribeFamily(opts::Args& args) {
  args.Details(
      "The node is reached over SSH, as root unless USER says otherwise; nothing has to be "
      "installed there. Its host key has to be known: --accept-new notes that of a new node. Paths "
      "of the node are absolute, those of this host are taken from where the program is started.");
  AddNodeOptions(args).Required();
}

Family NodeFamily() {
  return {
      .name = "node",
      .summary = "A managed node: its files, its processes, its panel.",
      .describe = DescribeFamily,
      .verbs = {NodeFactsVerb(), NodeReadVerb(), NodeWriteVerb(), NodeStatVerb(), NodeExistsVerb(),
                NodeTouchVerb(), NodeMkdirVerb(), NodeRmVerb(), NodeMvVerb(), NodeCpVerb(),
                NodeLnVerb(), NodeChmodVerb(), NodeGetVerb(), NodePutVerb(), NodeTreeVerb(),
                NodeSyncVerb(), NodeKillVerb(), NodeTerminateVerb(), NodeCtlVerb()},
      .files = {{"var/rsync-node-NODE.log", "what sync's rsync did"}},
      .see_also = {"ssh(1)", "rsync(1)", "pnlctl(8)"}};
}

}  // namespace tools
