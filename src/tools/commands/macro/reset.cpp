#include "tools/commands/catalogue.h"
#include "tools/commands/macro/macros.h"

namespace tools {
namespace {

/// A value that is not declared (any more) can be reset, too.
void RequireKnown(const Context& context, const std::string& key, const std::string& macro) {
  StringMap values;
  Catalogue(context).GetMacroCustomValues(key, values);
  if (values.contains(macro) || Macros(context, key).contains(macro)) return;
  throw pnl_err::Missed("macro", macro)
      .add_param("message", "template '" + key + "' has no macro '" + macro +
                                "'; 'brefirctl macro list " + key + "' shows which it has");
}

Change Reset(Context& context) {
  const std::string key = InstalledKey(context);
  const std::string macro = context.values.Str("NAME");
  RequireKnown(context, key, macro);
  return MacroChange(
      context, key, macro, [&](StringMap& values) { values.erase(macro); },
      [=, &context] { Catalogue(context).ResetOsTemplateMacroValue(key, macro); });
}

void Describe(opts::Args& args) {
  DescribeMacro(args);
  DescribeMacroChange(args);
}

}  // namespace

Verb MacroResetVerb() {
  return {.name = "reset",
          .summary = "Returns a macro to its default.",
          .describe = Describe,
          .change = Reset,
          .checks = true,
          .examples = {"main__Debian-12 timezone"},
          .fields = MacroFields()};
}

}  // namespace tools
