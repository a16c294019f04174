#include "tools/commands/node/node.h"

namespace tools {

Verb NodeMkdirVerb() {
  return {.name = "mkdir",
          .summary = "Makes a directory and its missing parent directories.",
          .describe = DescribePath,
          .change = [](Context& context) -> Change {
            const std::string path = NodePath(context, "PATH");
            pnl_rpc::SSH ssh = OpenNode(context);
            Change change = CommandChange({.ssh = ssh,
                                           .path = path,
                                           .type = "remote_mkdir",
                                           .done = "made",
                                           .command = MakeDirCommand(path)},
                                          Record().Add("path", path).Add("made", true));
            if (ssh_utils::file::Exists(ssh, path, "d")) change.plan.clear();
            return change;
          },
          .checks = true,
          .examples = {"/srv/www/html --node 192.0.2.7"},
          .fields = {kPathField, {"made", "true"}}};
}

}  // namespace tools
