#include "tools/commands/repo/repos.h"

#include "brefir/recipes.h"
#include "pnl/settings.h"

namespace tools {

std::shared_ptr<ostemplate::Repo> Repositories(const std::string& kind) {
  if (kind == "recipes") return std::make_shared<recipe::RecipeRepo>();
  return std::make_shared<ostemplate::OstRepo>(pnl_settings::Get("template_location"));
}

opts::Arg& AddKind(opts::Args& args) {
  return args.Positional("KIND").OneOf(kRepositoryKinds).Help("what the repository holds");
}

opts::Arg& AddKindAndName(opts::Args& args) {
  AddKind(args);
  return args.Positional("NAME").Help("the name of the repository");
}

}  // namespace tools
