#include "tools/commands/catalogue.h"
#include "tools/commands/template/templates.h"

namespace tools {

static int List(Context& context) {
  const bool failed = context.values.Has("failed");
  ostemplate::OsInfoMap templates;
  if (failed) {
    Catalogue(context).GetInstalledTemplates(templates, true);
  } else {
    templates = AllTemplates(context);
  }
  std::vector<Record> records;
  for (const auto& [key, info] : templates) {
    if (context.values.Has("installed") && !info.installed) continue;
    if (IsWanted(context.values, info)) records.push_back(TemplateRecord(key, info));
  }
  std::vector<std::string> columns = {"key",     "type", "tags", "installed", "update_available",
                                      "utcmtime"};
  if (failed) columns = {"key", "install_result_type", "install_result"};
  context.out.List(records, columns);
  return kDone;
}

static void DescribeList(opts::Args& args) {
  args.Option("installed").Help("only installed templates");
  args.Option("failed").Help("only those whose installation failed").Excludes("installed");
  AddFilters(args, "repository");
}

Verb TemplateListVerb() {
  return {.name = "list",
          .summary = "Lists offered and installed templates.",
          .describe = DescribeList,
          .run = List,
          .examples = {"", "--installed -o json"},
          .fields = TemplateFields()};
}

}  // namespace tools
