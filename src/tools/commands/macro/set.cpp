#include "tools/commands/catalogue.h"
#include "tools/commands/macro/macros.h"

namespace tools {
namespace {

pnl_err::Error Refusal(const std::string& macro, const std::string& reason) {
  return pnl_err::Error("macro", "refused", macro)
      .add_param("message", "macro '" + macro + "' " + reason);
}

/// The library sets whatever it is asked to; people misspell.
void RequireChangeable(const Context& context, const std::string& key, const std::string& macro) {
  if (context.values.Has("force")) return;
  const ostemplate::TemplateMacroMap macros = Macros(context, key);
  const auto found = macros.find(macro);
  if (found == macros.end()) {
    throw Refusal(macro,
                  "is not declared by '" + key + "' for this module; --force sets it anyway");
  }
  if (found->second.readonly) throw Refusal(macro, "is read-only; --force sets it anyway");
}

/// The values file has a line for each value, with a tab in it.
void RequireStorable(const std::string& word, const std::string& macro) {
  if (word.find_first_of("\t\n") != std::string::npos) {
    throw Refusal(macro, "cannot hold a tab or line end");
  }
}

Change Set(Context& context) {
  const std::string key = InstalledKey(context);
  const std::string macro = context.values.Str("NAME");
  const std::string value = context.values.Str("VALUE");
  RequireStorable(macro + value, macro);
  RequireChangeable(context, key, macro);
  return MacroChange(
      context, key, macro, [&](StringMap& values) { values[macro] = value; },
      [=, &context] { Catalogue(context).SetOsTemplateMacroValue(key, macro, value); });
}

void Describe(opts::Args& args) {
  DescribeMacro(args);
  args.Positional("VALUE").Help("its new value");
  args.Option("force").Help("also when it is read-only or not declared");
  DescribeMacroChange(args);
}

}  // namespace

Verb MacroSetVerb() {
  return {.name = "set",
          .summary = "Sets the administrator's value of a macro.",
          .describe = Describe,
          .change = Set,
          .checks = true,
          .examples = {"main__Debian-12 timezone Europe/Berlin --dry-run"},
          .fields = MacroFields()};
}

}  // namespace tools
