#include "tools/commands/config/file.h"

namespace tools {

static Question Get(Context& context) {
  const ConfigWords words = ReadConfigWords(context);
  const std::string key = ConfigKey(context, words.syntax);
  return [words, key, &context](pnl_host::Host& host) {
    ConfigFile file(context, words, host);
    const std::string text = file.Text();
    if (!utils::lines::Exists(text, key, file.Syntax())) throw NoKey(file, key);
    const std::string value = utils::lines::Get(text, key, file.Syntax().quote, file.Syntax());
    Answer answer = Record().Add("key", key).Add("value", value);
    answer.word = "value";
    return answer;
  };
}

Verb ConfigGetVerb() {
  return {.name = "get",
          .summary = "Prints the value of a key.",
          .describe = DescribeConfigKey,
          .ask = Get,
          .examples = {"/etc/default/locale LANG", "--separator ' ' /etc/ssh/sshd_config Port"},
          .fields = {kConfigKey, {"value", "its value"}}};
}

}  // namespace tools
