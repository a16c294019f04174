#include <optional>

#include "tools/commands/config/file.h"

namespace tools {
namespace {

namespace lines = utils::lines;

/// A file whose last line has no end gets the one that its other lines have.
std::string Ended(const std::string& text) {
  if (text.empty() || text.ends_with('\n')) return text;
  return text + (text.find("\r\n") != std::string::npos ? "\r\n" : "\n");
}

Change Remove(Context& context) {
  ConfigFile file(context);
  const std::string key = ConfigKey(context, file.Syntax());
  const auto edit = [&](const std::string& text) {
    const std::optional<std::string> after = lines::Del(Ended(text), key, file.Syntax());
    if (!after) throw NoKey(file, key);
    return *after;
  };
  return file.ChangeBy(edit,
                       Record().Add("path", file.Path()).Add("key", key).Add("removed", true));
}

}  // namespace

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
