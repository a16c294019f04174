#include "tools/commands/node/node.h"

namespace tools {

static HostEdit MakeLink(Context& context) {
  const std::string path = NodePath(context, "PATH");
  const std::string& target = context.values.Str("TARGET");
  if (target.empty() || target.starts_with('-'))
    throw UsageError("TARGET", target, "TARGET '" + target + "' cannot be the target of a link");
  const std::string inside = pnl_file::ConcatPath(path, pnl_file::Name(target));
  return {.look =
              [=](fleet::Looks& looks) {
                looks.entries.insert({path, inside});
              },
          .make = [=, word = context.values.Str("PATH")](fleet::Draft& draft) -> Answer {
            const bool in = draft.Entry(path).kind == fleet::PathKind::kDirectory;
            if (!in) RequireNoSlash(draft, word, "PATH");
            draft.Link(in ? inside : path, target);
            return Record().Add("path", in ? inside : path).Add("target", target);
          }};
}

static void DescribeLink(opts::Args& args) {
  args.Positional("TARGET").Help("the target of the link");
  DescribePath(args);
}

Verb NodeLnVerb() {
  return {.name = "ln",
          .summary = "Makes a symbolic link.",
          .describe = DescribeLink,
          .edit = MakeLink,
          .examples = {"/usr/bin/vim.tiny /usr/local/bin/vi --node 192.0.2.7"},
          .fields = {{"path", "the link"}, {"target", "its target"}}};
}

}  // namespace tools
