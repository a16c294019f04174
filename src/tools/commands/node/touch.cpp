#include <ctime>

#include "tools/commands/node/node.h"

namespace tools {

static HostEdit Touch(Context& context) {
  const std::string path = NodePath(context, "PATH");
  const std::int64_t now = std::time(nullptr);
  return {.look = [=](fleet::Looks& looks) { looks.files.insert(path); },
          .make = [=, word = context.values.Str("PATH")](fleet::Draft& draft) -> Answer {
            RequireMeant(draft, word, "PATH");
            draft.Touch(path, now);
            return Record().Add("path", path).Add("touched", true);
          }};
}

Verb NodeTouchVerb() {
  return {.name = "touch",
          .summary = "Makes an empty file, or sets a file's times to this host's now.",
          .describe = DescribePath,
          .edit = Touch,
          .examples = {"/var/tmp/mark --node 192.0.2.7"},
          .fields = {kPathField, {"touched", "true"}}};
}

}  // namespace tools
