#include "tools/commands/recipe/recipes.h"

namespace tools {

static Change Access(Context& context) {
  const auto level = recipe::StrToAccessLevel(context.values.Str("LEVEL"));
  return ParamChange(context, [=](recipe::Manage& manage, const std::string& id) {
    manage.SetAccessLevel(id, level);
  });
}

static void Describe(opts::Args& args) {
  AddRecipeId(args);
  args.Positional("LEVEL")
      .OneOf({"none", "admin", "any"})
      .Help("none: nobody; admin: root and the owner; any: everybody");
}

Verb RecipeAccessVerb() {
  return {.name = "access",
          .summary = "Sets who may use a recipe; updates of its repository keep this.",
          .describe = Describe,
          .change = Access,
          .checks = true,
          .examples = {"main__web.sh admin"},
          .fields = ParamFields()};
}

}  // namespace tools
