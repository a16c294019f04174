#include "tools/commands/catalogue.h"
#include "tools/commands/recipe/recipes.h"

namespace tools {

Verb RecipeUpdateVerb() {
  return {.name = "update",
          .summary = "Fetches the recipes of every repository.",
          .change =
              [](Context& context) {
                return UpdateOf(context, kRecipeError, RecipeRepositories(),
                                Recipes(context).RepoDir());
              },
          .examples = {""},
          .fields = UpdateFields()};
}

}  // namespace tools
