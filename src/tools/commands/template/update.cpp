#include "tools/commands/catalogue.h"
#include "tools/commands/template/templates.h"

namespace tools {

Verb TemplateUpdateVerb() {
  return {.name = "update",
          .summary = "Fetches the index of every repository.",
          .change =
              [](Context& context) {
                return UpdateOf(
                    context, kTemplateError,
                    std::make_shared<ostemplate::OstRepo>(TemplateRepositories(context)), "");
              },
          .examples = {""},
          .fields = UpdateFields()};
}

}  // namespace tools
