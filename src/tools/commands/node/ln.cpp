#include "tools/commands/node/node.h"

namespace tools {

static Change MakeLink(Context& context) {
  const std::string path = NodePath(context, "PATH");
  const std::string& target = context.values.Str("TARGET");
  if (target.empty() || target.starts_with('-'))
    throw UsageError("TARGET", target, "TARGET '" + target + "' cannot be the target of a link");
  return CommandChange(
      {.ssh = OpenNode(context, {"PATH"}),
       .path = path,
       .type = "remote_ln",
       .done = "made",
       .command = "ln -s " + pnl_proc::Escape(target) + " " + pnl_proc::Escape(path)},
      Record().Add("path", path).Add("target", target));
}

static void DescribeLink(opts::Args& args) {
  args.Positional("TARGET").Help("the target of the link");
  DescribePath(args);
}

Verb NodeLnVerb() {
  return {.name = "ln",
          .summary = "Makes a symbolic link.",
          .describe = DescribeLink,
          .change = MakeLink,
          .checks = true,
          .examples = {"/usr/bin/vim.tiny /usr/local/bin/vi --node 192.0.2.7"},
          .fields = {{"path", "the link"}, {"target", "its target"}}};
}

}  // namespace tools
