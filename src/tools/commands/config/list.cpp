#include "tools/commands/config/file.h"

namespace tools {

static int List(Context& context) {
  ConfigFile file(context);
  std::vector<Record> records;
  for (const auto& [line, key, value] :
       utils::lines::List(file.Text(), file.Syntax().quote, file.Syntax()))
    records.push_back(Record().Add("line", line).Add("key", key).Add("value", value));
  context.out.List(records, {"key", "value"});
  return kDone;
}

Verb ConfigListVerb() {
  return {.name = "list",
          .summary = "Lists keys and values in the order of the file.",
          .describe = DescribeConfigFile,
          .run = List,
          .examples = {"/etc/default/locale", "/etc/app.conf --quote '\"' --node 192.0.2.7"},
          .fields = {{"line", "the line's number, from 1"}, kConfigKey, {"value", "its value"}}};
}

}  // namespace tools
