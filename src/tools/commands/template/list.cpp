#include "pnl/file.h"
#include "tools/commands/catalogue.h"
#include "tools/commands/template/templates.h"

namespace tools {
namespace {

Record ToRecord(const std::string& key, const ostemplate::OsMetaInfo& info) {
  Record record = Record().Add("key", key);
  AddFields(record, ostemplate::kTemplateFields, info);
  for (auto& [name, value] : record.fields) {  // texts as their authors wrote them
    if (name == "utcmtime") value = pnl_date::DateTime::Parse(info.utcmtime);
    if (name == "date") value = pnl_date::DateTime::Parse(info.date);
  }
  return record;
}

std::vector<Field> TemplateFields() {
  return Fields({{"key", "repository, two underscores, name: what other commands take"}},
                FieldsOf(ostemplate::kTemplateFields));
}

/// All templates; repositories that fail are told and passed.
ostemplate::OsInfoMap AllTemplates(Context& context) {
  ostemplate::OsInfoMap templates;
  ostemplate::Manage catalogue = OfferedTemplates(context);
  Fetching(context, kTemplateError, "listed",
           [&](StringSet& failed) { catalogue.GetTemplates(templates, &failed); });
  return templates;
}

int List(Context& context) {
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
    if (IsWanted(context.values, info)) records.push_back(ToRecord(key, info));
  }
  std::vector<std::string> columns = {"key",     "type", "tags", "installed", "update_available",
                                      "utcmtime"};
  if (failed) columns = {"key", "install_result_type", "install_result"};
  context.out.List(records, columns);
  return kDone;
}

int Show(Context& context) {
  const std::string key = Key(context);
  ostemplate::OsInfoMap templates = AllTemplates(context);
  Catalogue(context).GetInstalledTemplates(templates, true);
  const auto found = templates.find(key);
  if (found == templates.end()) {
    throw pnl_err::Missed("template", key)
        .add_param("message",
                   "no template '" + key + "'; 'brefirctl template list' shows what there is");
  }
  Record record = ToRecord(key, found->second);
  const std::string metainfo =
      ostemplate::MetaInfoFile(pnl_file::ConcatPath(TemplateDir(context), key));
  if (pnl_file::Exists(metainfo))
    AddFields(record, ostemplate::kInstallationFields, ostemplate::OSTInfo(metainfo));
  context.out.One(record);
  return kDone;
}

void DescribeList(opts::Args& args) {
  args.Option("installed").Help("only installed templates");
  args.Option("failed").Help("only those whose installation failed").Excludes("installed");
  AddFilters(args, "repository");
}

}  // namespace

Verb TemplateListVerb() {
  return {.name = "list",
          .summary = "Lists offered and installed templates.",
          .describe = DescribeList,
          .run = List,
          .examples = {"", "--installed -o json"},
          .fields = TemplateFields()};
}

Verb TemplateShowVerb() {
  return {.name = "show",
          .summary = "Shows all that is known of one template.",
          .describe = AddKey,
          .run = Show,
          .examples = {"main__Debian-12"},
          .fields = Fields(TemplateFields(),
                           FieldsOf(ostemplate::kInstallationFields, "when it is installed"))};
}

}  // namespace tools
