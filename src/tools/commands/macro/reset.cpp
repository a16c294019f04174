#include "tools/commands/catalogue.h"
#include "tools/commands/macro/macros.h"

namespace tools {

static Change Reset(Context& context) {
  const std::string key = InstalledKey(context);
  const std::string& macro = context.values.Str("NAME");
  StringMap values;  // an undeclared macro can be reset too
  Catalogue(context).GetMacroCustomValues(key, values);
  if (values.contains(macro) || Macros(context, key).contains(macro))
    return MacroChange(context, std::nullopt);
  throw pnl_err::Missed("macro", macro)
      .add_param("message", "template '" + key + "' has no macro '" + macro +
                                "'; 'brefirctl macro list " + key + "' shows its macros");
}

Verb MacroResetVerb() {
  return {.name = "reset",
          .summary = "Resets a macro to its default value.",
          .describe = DescribeMacroChange,
          .change = Reset,
          .checks = true,
          .examples = {"main__Debian-12 timezone"},
          .fields = MacroFields()};
}

}  // namespace tools
