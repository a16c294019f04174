#include "tools/commands/families.h"

namespace tools {

std::vector<Family> Families() {
  return {TemplateFamily(),
          MacroFamily(),
          RepoFamily(),
          RecipeFamily(),
          Anywhere(NodeFamily(), {"list", "show", "add", "remove", "sync"}),  // need etc/ or var/
          KeyFamily(),
          Anywhere(ConfigFamily()),
          Anywhere(SysctlFamily()),
          Anywhere(PackageFamily(), {"add-repo"}),  // the settings name its server
          FrontdFamily(),
          StatFamily(),
          TaskFamily(),
          Anywhere(ApplyFamily()),
          Anywhere(RunFamily()),
          PrefixFamily(),
          DemoFamily()};
}

}  // namespace tools
