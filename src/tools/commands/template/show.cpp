#include "pnl/file.h"
#include "tools/commands/catalogue.h"
#include "tools/commands/template/templates.h"

namespace tools {

static int Show(Context& context) {
  const std::string key = Key(context);
  ostemplate::OsInfoMap templates = AllTemplates(context);
  Catalogue(context).GetInstalledTemplates(templates, true);
  const auto found = templates.find(key);
  if (found == templates.end()) {
    throw pnl_err::Missed("template", key)
        .add_param("message",
                   "there is no template '" + key + "'; 'brefirctl template list' shows all");
  }
  Record record = TemplateRecord(key, found->second);
  const std::string metainfo =
      ostemplate::MetaInfoFile(pnl_file::ConcatPath(TemplateDir(context), key));
  if (pnl_file::Exists(metainfo))
    AddFields(record, ostemplate::kInstallationFields, ostemplate::OSTInfo(metainfo));
  context.out.One(record);
  return kDone;
}

Verb TemplateShowVerb() {
  return {.name = "show",
          .summary = "Shows all data of a template.",
          .describe = AddKey,
          .run = Show,
          .examples = {"main__Debian-12"},
          .fields = Fields(TemplateFields(),
                           FieldsOf(ostemplate::kInstallationFields, "when it is installed"))};
}

}  // namespace tools
