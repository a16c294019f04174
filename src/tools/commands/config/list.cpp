#include "tools/commands/config/file.h"

namespace tools {

static Question List(Context& context) {
  return [words = ReadConfigWords(context), &context](pnl_host::Host& host) {
    ConfigFile file(context, words, host);
    std::vector<Record> records;
    for (const auto& [line, key, value] :
         utils::lines::List(file.Text(), file.Syntax().quote, file.Syntax()))
      records.push_back(Record().Add("line", line).Add("key", key).Add("value", value));
    return Answer(records, {"key", "value"});
  };
}

Verb ConfigListVerb() {
  return {.name = "list",
          .summary = "Lists keys and values in the order of the file.",
          .describe = DescribeConfigFile,
          .ask = List,
          .lists = true,
          .examples = {"/etc/default/locale", "/etc/app.conf --quote '\"' --node 192.0.2.7"},
          .fields = {{"line", "the line's number, from 1"}, kConfigKey, {"value", "its value"}}};
}

}  // namespace tools
