#include "fleet/edits.h"
#include "tools/commands/config/file.h"

namespace tools {

static HostEdit Remove(Context& context) {
  const ConfigWords words = ReadConfigWords(context);
  const std::string key = ConfigKey(context, words.syntax);
  return ConfigEdit(fleet::RemoveKeyEdit(RunPath(context, words), key, words.syntax),
                    Record().Add("path", words.path).Add("key", key).Add("removed", true));
}

static void Describe(opts::Args& args) {
  DescribeConfigKey(args);
  AddSecretOption(args);
}

Verb ConfigRemoveVerb() {
  return {.name = "remove",
          .summary = "Removes the lines of a key.",
          .aliases = {"del", "delete"},
          .describe = Describe,
          .edit = Remove,
          .examples = {"/etc/app.conf port --dry-run"},
          .fields = {kConfigFile, kConfigKey, {"removed", "true"}}};
}

}  // namespace tools
