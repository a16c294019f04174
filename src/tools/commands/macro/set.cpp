#include "tools/commands/catalogue.h"
#include "tools/commands/macro/macros.h"

namespace tools {

/// Checks the name: the library would set any, and people misspell names.
static Change Set(Context& context) {
  const std::string key = InstalledKey(context);
  const std::string& macro = context.values.Str("NAME");
  const std::string& value = context.values.Str("VALUE");
  const auto refuse = [&](const std::string& reason) {
    return pnl_err::Error("macro", "refused", macro)
        .add_param("message", "macro '" + macro + "' " + reason);
  };
  if ((macro + value).find_first_of("\t\n") != std::string::npos)
    throw refuse("cannot contain a tab or a line end");  // the file has one line per macro
  if (context.values.Has("force")) return MacroChange(context, value);
  const auto macros = Macros(context, key);
  const auto found = macros.find(macro);
  if (found == macros.end())
    throw refuse("is not declared by '" + key + "' for this module; --force sets it anyway");
  if (found->second.readonly) throw refuse("is read-only; --force sets it anyway");
  return MacroChange(context, value);
}

static void Describe(opts::Args& args) {
  DescribeMacroChange(args);
  args.Positional("VALUE").Help("its new value");
  args.Option("force").Help("set the macro even if it is read-only or not declared");
}

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
