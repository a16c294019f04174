#include "console/interrupt.h"
#include "tools/commands/node/node.h"

namespace tools {

/// Runs the user's command here; returns why the removal must be undone, or "".
static std::string Refusal(const std::string& command) {
  const int code = console::RunCommand(command);
  if (code == 0) return "";
  return "command '" + command + "' ended with exit code " + std::to_string(code);
}

static HostEdit Remove(Context& context) {
  const std::string path = MovablePath(context, "PATH");
  const bool recursive = context.values.Has("recursive");
  HostEdit edit{.look = [=](fleet::Looks& looks) { looks.entries.insert(path); },
                .make = [=, word = context.values.Str("PATH")](fleet::Draft& draft) -> Answer {
                  if (draft.Entry(path).kind != fleet::PathKind::kDirectory)
                    RequireNoSlash(draft, word, "PATH");
                  draft.Remove(path, recursive);
                  return Record().Add("path", path).Add("removed", true);
                }};
  if (context.values.Has("undo-on-failure")) {
    edit.before_commit = [command = context.values.Str("undo-on-failure")] {
      return Refusal(command);
    };
  }
  return edit;
}

static void DescribeRemove(opts::Args& args) {
  DescribePath(args);
  AddSecretOption(args);
  args.Option("recursive").Help("remove a directory with all its content");
  args.Option("undo-on-failure")
      .Value("CMD")
      .Help("run this command here before the removal is final; undo the removal if it fails")
      .Excludes("dry-run")
      .Excludes("check");
}

Verb NodeRmVerb() {
  return {.name = "rm",
          .summary = "Removes a file or directory; --undo-on-failure can undo it.",
          .describe = DescribeRemove,
          .edit = Remove,
          .examples = {"/srv/www/old --recursive --node 192.0.2.7 --dry-run",
                       "/etc/motd --undo-on-failure ./check --node 192.0.2.7"},
          .fields = {kPathField, {"removed", "true"}}};
}

}  // namespace tools
