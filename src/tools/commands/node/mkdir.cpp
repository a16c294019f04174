#include "tools/commands/node/node.h"

namespace tools {

static HostEdit MakeDir(Context& context) {
  const std::string path = NodePath(context, "PATH");
  return {.look = [=](fleet::Looks& looks) { looks.missing.insert(path); },
          .make = [=](fleet::Draft& draft) -> Answer {
            draft.MakeDirs(path);
            return Record().Add("path", path).Add("made", true);
          }};
}

Verb NodeMkdirVerb() {
  return {.name = "mkdir",
          .summary = "Makes a directory and its missing parent directories.",
          .describe = DescribePath,
          .edit = MakeDir,
          .examples = {"/srv/www/html --node 192.0.2.7", "/srv/www/html --nodes @web"},
          .fields = {kPathField, {"made", "true"}}};
}

}  // namespace tools
