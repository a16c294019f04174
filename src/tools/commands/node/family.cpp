// node: a managed node, through an SSH session.

#include "tools/commands/families.h"
#include "tools/commands/node/node.h"
#include "tools/frame/login.h"

namespace tools {

static void DescribeFamily(opts::Args& args) {
  args.Details(
      "The program logs in to the node over SSH, as root unless USER is given. Nothing has to be "
      "installed on the node. Its host key must be known; --accept-new stores the key of a new "
      "node. Paths on the node are absolute. Paths on this host may be relative. The verbs list, "
      "show, add, remove and scan work on the inventory of the nodes, etc/nodes, and status asks "
      "all "
      "of them; history reads the journal of runs; these verbs take no --node.");
  AddNodeOptions(args);
}

static std::vector<Verb> Verbs() {
  std::vector<Verb> verbs = OnNodes(
      {NodeExecVerb(),   NodeFactsVerb(), NodeReadVerb(),  NodeWriteVerb(), NodeStatVerb(),
       NodeExistsVerb(), NodeTouchVerb(), NodeMkdirVerb(), NodeRmVerb(),    NodeMvVerb(),
       NodeCpVerb(),     NodeLnVerb(),    NodeChmodVerb(), NodeChownVerb(), NodeGetVerb(),
       NodePutVerb(),    NodeTreeVerb(),  NodeSyncVerb(),  NodeKillVerb(),  NodeTerminateVerb(),
       NodeCtlVerb()});
  verbs.insert(verbs.begin(), {NodeListVerb(), NodeShowVerb(), NodeStatusVerb(), NodeHistoryVerb(),
                               NodeAddVerb(), NodeRemoveVerb(), NodeScanVerb()});
  return verbs;
}

Family NodeFamily() {
  return {
      .name = "node",
      .summary = "Managed servers (nodes): their inventory, files, processes, system and panel.",
      .describe = DescribeFamily,
      .verbs = Verbs(),
      .files = {{"etc/nodes", "the inventory"},
                {"var/rsync-node-NODE.log", "the log of 'node sync'"}},
      .see_also = {"brefirctl-run(1)", "brefir-nodes(5)", "ssh(1)", "rsync(1)", "pnlctl(8)"}};
}

}  // namespace tools
