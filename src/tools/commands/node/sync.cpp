#include <cerrno>

#include "tools/commands/node/node.h"

namespace tools {
namespace {

/// The options for rsync, which starts its own ssh client.
struct SyncPlan {
  std::string source;
  std::string dest;
  std::string node;
  std::string key;
  std::string known_hosts;
  std::vector<std::string> names;
};

SyncPlan PlanSync(const Context& context) {
  const pnl_rpc::SshOptions options = NodeOptions(context);
  const opts::Values& values = context.values;
  if (options.key_file.empty())
    throw UsageError("--key", "", "--key is missing: sync logs in only with a key file");
  if (options.user != "root")
    throw UsageError("--node", options.user,
                     "sync logs in only as root, not as '" + options.user + "'");
  if (!options.jumps.empty())
    throw UsageError("--node", values.Str("node"),
                     "sync does not go through jump hosts; use 'node tree', which does");
  if (options.port != 22 && !values.Has("port")) {
    throw UsageError("--node", values.Str("node"),
                     "give another port with --port; sync does not check the host key then");
  }
  SyncPlan plan{
      context.Path(values.Str("SRC")),
      NodePath(context, "dest"),
      options.host.find(':') == std::string::npos ? options.host : "[" + options.host + "]",
      options.key_file,
      options.known_hosts,
      values.List("NAME")};
  if (plan.known_hosts.empty()) plan.known_hosts = "~/.ssh/known_hosts";
  if (plan.names.empty()) plan.names = {"."};
  RequirePlain(options.host, "--node");
  RequirePlain(plan.source, "SRC");
  RequirePlain(plan.dest, "--dest");
  RequirePlain(plan.key, "--key");
  if (!options.known_hosts.empty()) RequirePlain(plan.known_hosts, "--known-hosts");
  return plan;
}

int RunSync(const Context& context, const SyncPlan& plan) {
  if (context.values.Has("port")) {
    return ssh_utils::CopyViaRsyncBmx(plan.source, plan.names, plan.node, plan.key, plan.dest,
                                      plan.known_hosts,
                                      static_cast<int>(context.values.Int("port")));
  }
  return ssh_utils::CopyViaRsync(plan.source, plan.names, plan.node, plan.key, plan.dest,
                                 plan.known_hosts, context.values.Str("options"));
}

Change Sync(Context& context) {
  const SyncPlan plan = PlanSync(context);
  if (!pnl_file::IsDir(plan.source)) throw pnl_err::System("read", plan.source, ENOTDIR);
  const pnl_rpc::SSH ssh = OpenNode(context);  // gives a clearer error than rsync
  Change change = ActChange(ssh.Host(), MakeDirCommand(plan.dest), [=, &context]() -> Answer {
    MakeNodeDir(ssh, plan.dest);
    pnl_file::MkDir("var");
    const std::string log = ssh_utils::RsyncLog(plan.node);
    if (const int code = RunSync(context, plan); code != 0) {
      throw NodeError(ssh, plan.dest,
                      "rsync ended with exit code " + std::to_string(code) + "; " + log +
                          " and -v show the reason");
    }
    return Record().Add("path", plan.dest).Add("source", plan.source).Add("log", log);
  });
  for (const std::string& name : plan.names)
    change.plan.push_back({.words = "rsync sends " + pnl_file::ConcatPath(plan.source, name) +
                                    " to " + plan.node + ":" + plan.dest + "/"});
  return change;
}

void DescribeSync(opts::Args& args) {
  args.Positional("SRC").Help("a directory on this host").Completes("dirs");
  args.Positional("NAME").Repeated().Optional().Help("names in SRC to send; default: everything");
  args.Option("dest").Value("DIR").Required().Help("the directory on the node; made if missing");
  args.Option("options").Value("TEXT").Help(
      "additional options for rsync, such as --options=--delete");
  args.Option("port")
      .Number("N", 1, 65535)
      .Help("use this port; the host key is not checked then")
      .Excludes("options");
}

}  // namespace

Verb NodeSyncVerb() {
  return {.name = "sync",
          .summary = "Sends the changed files of a directory, with rsync.",
          .describe = DescribeSync,
          .change = Sync,
          .examples = {"site --dest /srv/www --node 192.0.2.7 --key etc/panel.key"},
          .fields = {kDestField, {"source", "the directory here"}, {"log", "the log of rsync"}}};
}

}  // namespace tools
