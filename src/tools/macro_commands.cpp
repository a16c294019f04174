// macro: the administrator's values of an installed template.

#include <cstdlib>

#include "brefir/str_utils.h"
#include "fleet/diff.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "pnl/proc.h"
#include "tools/catalogue.h"
#include "tools/commands.h"

namespace tools {
namespace {

/// The macros of an installed template, with their records' fields.
ostemplate::TemplateMacroMap Macros(Context& context, const std::string& key) {
  ostemplate::TemplateMacroMap macros;
  Catalogue(context).GetOsTemplateMacros(key, macros);
  return macros;
}

int List(Context& context) {
  std::vector<Record> records;
  for (const auto& [name, info] : Macros(context, InstalledKey(context))) {
    records.push_back(Record().Add("key", name));
    AddFields(records.back(), ostemplate::kMacroFields, info);
  }
  context.out.List(records, {"key", "value", "readonly", "oninstall", "custom"});
  return kDone;
}

pnl_err::Error Refusal(const std::string& macro, const std::string& reason) {
  return pnl_err::Error("macro", "refused", macro)
      .add_param("message", "macro '" + macro + "' " + reason);
}

/// The library sets whatever it is asked to; people misspell.
void RequireChangeable(Context& context, const std::string& key, const std::string& macro) {
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

/// The values file before and after a change, as a diff.
template <class Change>
std::string Preview(Context& context, const std::string& key, Change change) {
  StringMap values;
  const std::string file = Catalogue(context).GetMacroCustomValues(key, values);
  change(values);
  return fleet::UnifiedDiff(pnl_file::Read(file), str::JoinParams(values, "\n", "\t"), file);
}

/// Ends the transaction: commits, unless a command was to run in between and failed.
int Conclude(Context& context, const std::string& key, const std::string& macro) {
  if (context.values.Has("undo-on-failure")) {
    const std::string& command = context.values.Str("undo-on-failure");
    const int code = pnl_proc::Execute(command, pnl_proc::kMergeStderr).Result();
    if (code != 0) {
      pnl_job::Rollback();
      throw pnl_err::Error("macro", "undone", macro)
          .add_param("message", "command '" + command + "' ended with exit code " +
                                    std::to_string(code) + "; macro '" + macro +
                                    "' stays as it was");
    }
  }
  pnl_job::Commit();
  const auto macros = Macros(context, key);
  const auto now = macros.find(macro);
  context.out.One(Record()
                      .Add("key", macro)
                      .Add("value", now == macros.end() ? Value() : Value(now->second.value)));
  return kDone;
}

int Set(Context& context) {
  const std::string key = InstalledKey(context);
  const std::string& macro = context.values.Str("NAME");
  const std::string& value = context.values.Str("VALUE");
  RequireStorable(macro + value, macro);
  RequireChangeable(context, key, macro);
  if (context.values.Has("dry-run")) {
    context.out.Text("diff",
                     Preview(context, key, [&](StringMap& values) { values[macro] = value; }));
    return kDone;
  }
  const pnl_job::Transaction transaction;  // rolls back what an error leaves open
  Catalogue(context).SetOsTemplateMacroValue(key, macro, value);
  return Conclude(context, key, macro);
}

/// A value that is not declared (any more) can be reset, too.
void RequireKnown(Context& context, const std::string& key, const std::string& macro) {
  StringMap values;
  Catalogue(context).GetMacroCustomValues(key, values);
  if (values.contains(macro) || Macros(context, key).contains(macro)) return;
  throw pnl_err::Missed("macro", macro)
      .add_param("message", "template '" + key + "' has no macro '" + macro +
                                "'; 'brefirctl macro list " + key + "' shows which it has");
}

int Reset(Context& context) {
  const std::string key = InstalledKey(context);
  const std::string& macro = context.values.Str("NAME");
  RequireKnown(context, key, macro);
  if (context.values.Has("dry-run")) {
    context.out.Text("diff",
                     Preview(context, key, [&](StringMap& values) { values.erase(macro); }));
    return kDone;
  }
  const pnl_job::Transaction transaction;
  Catalogue(context).ResetOsTemplateMacroValue(key, macro);
  return Conclude(context, key, macro);
}

void DescribeFamily(opts::Args& args) {
  args.Details(
      "A template declares its macros with their defaults; the administrator's values take their "
      "place and outlive updates of the template.");
  AddCatalogueOptions(args);
}

const std::vector<Field> kChange = {{"key", "the macro's name"},
                                    {"value", "its value now; null when it is not declared"},
                                    kDiffField};

void DescribeMacro(opts::Args& args) {
  AddInstalledKey(args);
  args.Positional("NAME").Help("the macro, as 'macro list' shows it").Completes("macros");
}

void DescribeChange(opts::Args& args) {
  args.Option("dry-run").Help("show the change as a diff");
  args.Option("undo-on-failure")
      .Value("CMD")
      .Help("run this command before the change is final; undo it when the command fails")
      .Excludes("dry-run");
}

void DescribeSet(opts::Args& args) {
  DescribeMacro(args);
  args.Positional("VALUE").Help("its new value");
  args.Option("force").Help("also when it is read-only or not declared");
  DescribeChange(args);
}

void DescribeReset(opts::Args& args) {
  DescribeMacro(args);
  DescribeChange(args);
}

}  // namespace

Family MacroFamily() {
  return {"macro",
          "Macros of installed templates: named values for their installation scripts.",
          DescribeFamily,
          {{"list",
            "Lists the macros of a template.",
            AddInstalledKey,
            List,
            {"main__Debian-12"},
            Fields({{"key", "the macro's name"}}, FieldsOf(ostemplate::kMacroFields))},
           {"set",
            "Sets the administrator's value of a macro.",
            DescribeSet,
            Set,
            {"main__Debian-12 timezone Europe/Berlin --dry-run"},
            kChange},
           {"reset",
            "Returns a macro to its default.",
            DescribeReset,
            Reset,
            {"main__Debian-12 timezone"},
            kChange}},
          {{"templates/KEY/templatemacros.values", "the administrator's values"},
           {"templates/KEY/metainfo.xml", "the declarations, with their defaults"}},
          {"templatemacros.values(5)", "brefirctl-template(1)"}};
}

}  // namespace tools
