#include "tools/commands/node/node.h"

namespace tools {

Verb NodeMkdirVerb() {
  return {.name = "mkdir",
          .summary = "Makes a directory and those above it.",
          .describe = DescribePath,
          .change = [](Context& context) -> Change {
            const std::string path = NodePath(context, "PATH");
            return CommandChange({.ssh = OpenNode(context),
                                  .path = path,
                                  .type = "remote_mkdir",
                                  .done = "made",
                                  .command = MakeDirCommand(path)},
                                 Record().Add("path", path).Add("made", true));
          },
          .examples = {"/srv/www/html --node 192.0.2.7"},
          .fields = {kPathField, {"made", "true"}}};
}

}  // namespace tools
