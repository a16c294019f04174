#include "fleet/file_mode.h"
#include "tools/commands/node/node.h"

namespace tools {

static HostEdit Chmod(Context& context) {
  const std::string& mode = context.values.Str("MODE");
  const std::string path = NodePath(context, "PATH");
  if (!fleet::IsMode(mode))
    throw UsageError("MODE", mode, "MODE '" + mode + "' is not a mode, such as 0644 or u+x");
  return {.look = [=](fleet::Looks& looks) { looks.files.insert(path); },
          .make = [=, word = context.values.Str("PATH")](fleet::Draft& draft) -> Answer {
            RequireMeant(draft, word, "PATH");
            const fleet::PathState& now = draft.File(path);
            draft.SetMode(path, fleet::ChangedMode(mode, now.mode.value_or(0),
                                                   now.kind == fleet::PathKind::kDirectory));
            return Record().Add("path", path).Add("mode", mode);
          }};
}

static void DescribeChmod(opts::Args& args) {
  args.Positional("MODE").Help("the mode as in chmod(1), such as 0644 or u+x");
  DescribePath(args);
}

Verb NodeChmodVerb() {
  return {.name = "chmod",
          .summary = "Changes the mode of a file.",
          .describe = DescribeChmod,
          .edit = Chmod,
          .examples = {"0640 /etc/app.conf --node 192.0.2.7"},
          .fields = {kPathField, {"mode", "the mode that was set"}}};
}

}  // namespace tools
