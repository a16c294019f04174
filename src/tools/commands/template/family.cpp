// template: the catalogue of OS templates.

#include "tools/commands/catalogue.h"
#include "tools/commands/families.h"
#include "tools/commands/template/templates.h"

namespace tools {

Record TemplateRecord(const std::string& key, const ostemplate::OsMetaInfo& info) {
  Record record = Record().Add("key", key);
  AddFields(record, ostemplate::kTemplateFields, info);
  for (auto& [name, value] : record.fields) {  // unchanged texts of the authors
    if (name == "utcmtime") value = pnl_date::DateTime::Parse(info.utcmtime);
    if (name == "date") value = pnl_date::DateTime::Parse(info.date);
  }
  return record;
}

std::vector<Field> TemplateFields() {
  return Fields({{"key", "repository, two underscores, name; other commands take this key"}},
                FieldsOf(ostemplate::kTemplateFields));
}

ostemplate::OsInfoMap AllTemplates(Context& context) {
  ostemplate::OsInfoMap templates;
  ostemplate::Manage catalogue = OfferedTemplates(context);
  Fetching(context, kTemplateError, "listed",
           [&](StringSet& failed) { catalogue.GetTemplates(templates, &failed); });
  return templates;
}

static void DescribeFamily(opts::Args& args) {
  args.Details(
      "Lists show the templates of the last fetched indexes that support the panel module "
      "(--module), the program of the panel that installs servers. A KEY is the repository, two "
      "underscores and the template's name. Installations run as tasks; 'brefirctl task' shows "
      "them.");
  AddCatalogueOptions(args);
}

Family TemplateFamily() {
  return {
      .name = "template",
      .summary = "Operating-system templates: what repositories offer and what is installed.",
      .describe = DescribeFamily,
      .verbs = {TemplateListVerb(), TemplateShowVerb(), TemplateUpdateVerb(), TemplateInstallVerb(),
                TemplateRemoveVerb(), TemplateMarkVerb()},
      .files = {{"etc/ostemplates.conf", "repositories of templates"},
                {"templates/.removed", "what a failed removal left; the next removal deletes it"},
                {"var/.oscache", "the last fetched indexes of the repositories"},
                {"templates", "installed templates (setting template_dir)"}},
      .see_also = {"ostemplates.conf(5)", "brefir.conf(5)", "ost_install(8)"}};
}

}  // namespace tools
