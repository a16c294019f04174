#include "tools/commands/catalogue.h"
#include "tools/commands/macro/macros.h"

namespace tools {

static int List(Context& context) {
  std::vector<Record> records;
  for (const auto& [name, info] : Macros(context, InstalledKey(context))) {
    records.push_back(Record().Add("key", name));
    AddFields(records.back(), ostemplate::kMacroFields, info);
  }
  context.out.List(records, {"key", "value", "readonly", "oninstall", "custom"});
  return kDone;
}

Verb MacroListVerb() {
  return {.name = "list",
          .summary = "Lists the macros of a template.",
          .describe = AddInstalledKey,
          .run = List,
          .examples = {"main__Debian-12"},
          .fields = Fields({{"key", "the macro's name"}}, FieldsOf(ostemplate::kMacroFields))};
}

}  // namespace tools
