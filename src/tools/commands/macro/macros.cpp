#include "tools/commands/macro/macros.h"

#include "brefir/str_utils.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "pnl/proc.h"
#include "tools/commands/catalogue.h"

namespace tools {

ostemplate::TemplateMacroMap Macros(const Context& context, const std::string& key) {
  ostemplate::TemplateMacroMap macros;
  Catalogue(context).GetOsTemplateMacros(key, macros);
  return macros;
}

namespace {

/// Ends the transaction: commits, unless a command was to run in between and failed.
void Conclude(const std::string& command, const std::string& macro) {
  const int code =
      command.empty() ? 0 : pnl_proc::Execute(command, pnl_proc::kMergeStderr).Result();
  if (code != 0) {
    pnl_job::Rollback();
    throw pnl_err::Error("macro", "undone", macro)
        .add_param("message", "command '" + command + "' ended with exit code " +
                                  std::to_string(code) + "; macro '" + macro + "' stays as it was");
  }
  pnl_job::Commit();
}

Record ToRecord(const Context& context, const std::string& key, const std::string& macro) {
  const auto macros = Macros(context, key);
  const auto now = macros.find(macro);
  return Record()
      .Add("key", macro)
      .Add("value", now == macros.end() ? Value() : Value(now->second.value));
}

fleet::Step StepOf(const Context& context, const std::string& key,
                   const std::function<void(StringMap& values)>& edit) {
  StringMap values;
  const std::string file = Catalogue(context).GetMacroCustomValues(key, values);
  fleet::Step step{.node = "localhost", .kind = fleet::StepKind::kFile, .object = file};
  if (pnl_file::Exists(file)) step.before = pnl_file::ReadE(file);
  const StringMap before = values;
  edit(values);
  step.after = values == before ? step.before : str::JoinParams(values, "\n", "\t");
  return step;
}

}  // namespace

Change MacroChange(const Context& context, const std::string& key, const std::string& macro,
                   const std::function<void(StringMap& values)>& edit,
                   const std::function<void()>& apply) {
  const fleet::Step step = StepOf(context, key, edit);
  const bool changes = fleet::Changes(step);
  const auto make = [=, &context]() -> Answer {
    if (changes) {
      const pnl_job::Transaction transaction;  // rolls back what an error leaves open
      apply();
      Conclude(context.values.Str("undo-on-failure"), macro);
    }
    return ToRecord(context, key, macro);
  };
  return {{step}, make};
}

void DescribeMacro(opts::Args& args) {
  AddInstalledKey(args);
  args.Positional("NAME").Help("the macro, as 'macro list' shows it").Completes("macros");
}

void DescribeMacroChange(opts::Args& args) {
  args.Option("undo-on-failure")
      .Value("CMD")
      .Help("run this command before the change is final; undo it when the command fails")
      .Excludes("dry-run")
      .Excludes("check");
}

std::vector<Field> MacroFields() {
  return {{"key", "the macro's name"}, {"value", "its value now; null when it is not declared"}};
}

}  // namespace tools
