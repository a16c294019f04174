#include "tools/commands/config/file.h"

namespace tools {

static int Get(Context& context) {
  ConfigFile file(context);
  const std::string key = ConfigKey(context, file.Syntax());
  const std::string text = file.Text();
  if (!utils::lines::Exists(text, key, file.Syntax())) throw NoKey(file, key);
  const std::string value = utils::lines::Get(text, key, file.Syntax().quote, file.Syntax());
  context.out.Word(Record().Add("key", key).Add("value", value), "value");
  return kDone;
}

Verb ConfigGetVerb() {
  return {.name = "get",
          .summary = "Prints the value of a key.",
          .describe = DescribeConfigKey,
          .run = Get,
          .examples = {"/etc/default/locale LANG", "--separator ' ' /etc/ssh/sshd_config Port"},
          .fields = {kConfigKey, {"value", "its value"}}};
}

}  // namespace tools
