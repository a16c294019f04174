#include "pnl/proc.h"
#include "tools/commands/login.h"
#include "tools/commands/node/node.h"

namespace tools {
namespace {

Change MkDir(Context& context) {
  const std::string path = NodePath(context, "PATH");
  return CommandChange({.ssh = OpenNode(context),
                        .path = path,
                        .type = "remote_mkdir",
                        .done = "made",
                        .command = "mkdir -p " + pnl_proc::Escape(path)},
                       Record().Add("path", path).Add("made", true));
}

}  // namespace

Verb NodeMkdirVerb() {
  return {
      .name = "mkdir",
      .summary = "Makes a directory and those above it.",
      .describe = DescribePath,
      .change = MkDir,
      .examples = {"/srv/www/html --node 192.0.2.7"},
      .fields = {kPathField, {"made", "true"}},
  };
}

}  // namespace tools
