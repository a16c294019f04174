#include "tools/commands/catalogue.h"
#include "tools/commands/macro/macros.h"

namespace tools {
namespace {

int List(Context& context) {
  std::vector<Record> records;
  for (const auto& [name, info] : Macros(context, InstalledKey(context))) {
    records.push_back(Record()
                          .Add("key", name)
                          .Add("value", info.value)
                          .Add("readonly", info.readonly)
                          .Add("oninstall", info.oninstall)
                          .Add("custom", info.custom)
                          .Add("xml", info.xml.Str()));
  }
  context.out.List(records, {"key", "value", "readonly", "oninstall", "custom"});
  return kDone;
}

}  // namespace

Verb MacroListVerb() {
  return {.name = "list",
          .summary = "Lists the macros of a template.",
          .describe = AddInstalledKey,
          .run = List,
          .examples = {"main__Debian-12"},
          .fields = {{"key", "the macro's name"},
                     {"value", "the administrator's value, else the default"},
                     {"readonly", "whether it is not to be changed"},
                     {"oninstall", "whether it is asked for when a server is installed"},
                     {"custom", "whether the value is the administrator's"},
                     {"xml", "what else the template declares of it, as an XML document"}}};
}

}  // namespace tools
