#include "tools/commands/recipe/recipes.h"

namespace tools {

static Change Owner(Context& context) {
  const std::string user = context.values.Str("USER");
  return ParamChange(
      context, [=](recipe::Manage& manage, const std::string& id) { manage.SetOwner(id, user); });
}

static void Describe(opts::Args& args) {
  AddRecipeId(args);
  args.Positional("USER").Help("the user who may use it besides root; '' for nobody");
}

Verb RecipeOwnerVerb() {
  return {.name = "owner",
          .summary = "Gives a recipe to a user; updates of its repository keep this.",
          .describe = Describe,
          .change = Owner,
          .checks = true,
          .examples = {"main__web.sh alice"},
          .fields = ParamFields()};
}

}  // namespace tools
