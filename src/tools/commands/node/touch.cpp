#include "tools/commands/node/node.h"

namespace tools {

Verb NodeTouchVerb() {
  return {.name = "touch",
          .summary = "Makes an empty file, or sets a file's times to now.",
          .describe = DescribePath,
          .change = [](Context& context) -> Change {
            const std::string path = NodePath(context, "PATH");
            return CommandChange({.ssh = OpenNode(context, {"PATH"}),
                                  .path = path,
                                  .type = "remote_touch",
                                  .done = "touched",
                                  .command = "touch " + pnl_proc::Escape(path)},
                                 Record().Add("path", path).Add("touched", true));
          },
          .checks = true,
          .examples = {"/var/tmp/mark --node 192.0.2.7"},
          .fields = {kPathField, {"touched", "true"}}};
}

}  // namespace tools
