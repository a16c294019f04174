#include "tools/commands/recipe/recipes.h"

namespace tools {

static Change Owner(Context& context) {
  const std::string user = context.values.Str("USER");
  return ParamChange(
      context, [=](recipe::Manage& manage, const std::string& id) { manage.SetOwner(id, user); });
}

static void Describe(opts::Args& args) {
  AddRecipeId(args);
  args.Positional("USER").Help("who may use it besides the administrator; '' for nobody");
}

Verb RecipeOwnerVerb() {
  return {.name = "owner",
          .summary = "Gives a recipe to a user; updates keep it.",
          .describe = Describe,
          .change = Owner,
          .checks = true,
          .examples = {"main__web.sh alice"},
          .fields = ParamFields()};
}

}  // namespace tools
