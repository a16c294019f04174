#include "tools/commands/macro/macros.h"

#include "fleet/panel.h"
#include "pnl/job.h"
#include "pnl/proc.h"
#include "tools/commands/catalogue.h"

namespace tools {

ostemplate::TemplateMacroMap Macros(const Context& context, const std::string& key) {
  ostemplate::TemplateMacroMap macros;
  Catalogue(context).GetOsTemplateMacros(key, macros);
  return macros;
}

/// Ends the transaction: commits, unless a command was given and it failed.
static void Conclude(const std::string& command, const std::string& macro) {
  const int code =
      command.empty() ? 0 : pnl_proc::Execute(command, pnl_proc::kMergeStderr).Result();
  if (code == 0) return pnl_job::Commit();
  pnl_job::Rollback();
  throw pnl_err::Error("macro", "undone", macro)
      .add_param("message", "command '" + command + "' ended with exit code " +
                                std::to_string(code) + "; macro '" + macro + "' is unchanged");
}

Change MacroChange(Context& context, const std::optional<std::string>& value) {
  const std::string key = InstalledKey(context);
  const std::string macro = context.values.Str("NAME");
  ostemplate::Manage catalogue = Catalogue(context);
  const fleet::Step step = fleet::MacroStep(catalogue, key, macro, value);
  const auto make = [=, &context, changes = fleet::Changes(step)]() mutable -> Answer {
    if (changes) {
      const pnl_job::Transaction transaction;  // rolls back after an error
      if (value) {
        catalogue.SetOsTemplateMacroValue(key, macro, *value);
      } else {
        catalogue.ResetOsTemplateMacroValue(key, macro);
      }
      Conclude(context.values.Str("undo-on-failure"), macro);
    }
    const auto macros = Macros(context, key);
    const auto now = macros.find(macro);
    return Record()
        .Add("key", macro)
        .Add("value", now == macros.end() ? Value() : Value(now->second.value));
  };
  return {{step}, make};
}

void DescribeMacroChange(opts::Args& args) {
  AddInstalledKey(args);
  args.Positional("NAME").Help("the macro, as 'macro list' shows it").Completes("macros");
  args.Option("undo-on-failure")
      .Value("CMD")
      .Help("run this command before the change is final; undo the change if it fails")
      .Excludes("dry-run")
      .Excludes("check");
}

std::vector<Field> MacroFields() {
  return {{"key", "the macro's name"}, {"value", "its value now; null if it is not declared"}};
}

}  // namespace tools
