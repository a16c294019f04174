#include "tools/commands/node/node.h"

namespace tools {

static Change Chmod(Context& context) {
  const std::string& mode = context.values.Str("MODE");
  const std::string path = NodePath(context, "PATH");
  if (mode.empty() || mode.find_first_not_of("01234567ugoarwxXst+=,-") != std::string::npos ||
      mode.starts_with('-'))
    throw UsageError("MODE", mode, "MODE '" + mode + "' is not a mode, such as 0644 or u+x");
  pnl_rpc::SSH ssh = OpenNode(context, {"PATH"});
  RequireThere(ssh, path);
  return CommandChange({.ssh = ssh,
                        .path = path,
                        .type = "remote_chmod",
                        .done = "changed",
                        .command = "chmod " + mode + " " + pnl_proc::Escape(path)},
                       Record().Add("path", path).Add("mode", mode));
}

static void DescribeChmod(opts::Args& args) {
  args.Positional("MODE").Help("the mode as in chmod(1), such as 0644 or u+x");
  DescribePath(args);
}

Verb NodeChmodVerb() {
  return {.name = "chmod",
          .summary = "Changes the mode of a file.",
          .describe = DescribeChmod,
          .change = Chmod,
          .examples = {"0640 /etc/app.conf --node 192.0.2.7"},
          .fields = {kPathField, {"mode", "the mode that was set"}}};
}

}  // namespace tools
