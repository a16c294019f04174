// template: the catalogue of OS templates.

#include "tools/commands/catalogue.h"
#include "tools/commands/families.h"
#include "tools/commands/template/templates.h"

namespace tools {
namespace {

void DescribeFamily(opts::Args& args) {
  args.Details(
      "Offered are the templates of the indexes as last fetched, for the panel module and version "
      "of the settings. A KEY is the repository, two underscores and the template's name. "
      "Installations run as tasks of their own, which 'brefirctl task' shows.");
  AddCatalogueOptions(args);
}

}  // namespace

Family TemplateFamily() {
  return {.name = "template",
          .summary = "Operating-system templates: what repositories offer and what is installed.",
          .describe = DescribeFamily,
          .verbs = {TemplateListVerb(), TemplateShowVerb(), TemplateUpdateVerb(),
                    TemplateInstallVerb(), TemplateRemoveVerb(), TemplateMarkVerb()},
          .files = {{"etc/ostemplates.conf", "repositories of templates"},
                    {"templates/.removed",
                     "what a removal that failed has left; the next one removes it"},
                    {"var/.oscache", "their indexes, as last fetched"},
                    {"templates",
                     "installed templates, unless template_dir of the settings says otherwise"}},
          .see_also = {"ostemplates.conf(5)", "brefir.conf(5)", "ost_install(8)"}};
}

}  // namespace tools
