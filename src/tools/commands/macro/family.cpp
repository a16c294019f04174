// macro: the administrator's values of an installed template.

#include "tools/commands/catalogue.h"
#include "tools/commands/families.h"
#include "tools/commands/macro/macros.h"

namespace tools {

static void DescribeFamily(opts::Args& args) {
  args.Details(
      "A template declares its macros with default values. The administrator's values replace the "
      "defaults and survive updates of the template.");
  AddCatalogueOptions(args);
}

Family MacroFamily() {
  return {.name = "macro",
          .summary = "Macros of installed templates: named values for their installation scripts.",
          .describe = DescribeFamily,
          .verbs = {MacroListVerb(), MacroSetVerb(), MacroResetVerb()},
          .files = {{"templates/KEY/templatemacros.values", "the administrator's values"},
                    {"templates/KEY/metainfo.xml", "the declarations, with their defaults"}},
          .see_also = {"templatemacros.values(5)", "brefirctl-template(1)"}};
}

}  // namespace tools
