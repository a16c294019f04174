#include "fleet/config_key.h"
#include "tools/commands/config/file.h"

namespace tools {

static Change Remove(Context& context) {
  ConfigFile file(context);
  const std::string key = ConfigKey(context, file.Syntax());
  const auto edit = [&](const std::string& text) {
    const std::optional<std::string> after = fleet::RemoveConfigKey(text, key, file.Syntax());
    if (!after) throw NoKey(file, key);
    return *after;
  };
  return file.ChangeBy(edit,
                       Record().Add("path", file.Path()).Add("key", key).Add("removed", true));
}

Verb ConfigRemoveVerb() {
  return {.name = "remove",
          .summary = "Removes the lines of a key.",
          .aliases = {"del", "delete"},
          .describe = DescribeConfigKey,
          .change = Remove,
          .checks = true,
          .examples = {"/etc/app.conf port --dry-run"},
          .fields = {kConfigFile, kConfigKey, {"removed", "true"}}};
}

}  // namespace tools
