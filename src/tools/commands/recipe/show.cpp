#include "tools/commands/recipe/recipes.h"

namespace tools {

static int Show(Context& context) {
  return PrintRecipe(context, *FindRecipe(context, context.values.Has("content")));
}

static void DescribeShow(opts::Args& args) {
  AddRecipeId(args);
  AddRecipeContent(args);
}

Verb RecipeShowVerb() {
  return {.name = "show",
          .summary = "Shows all data of a recipe.",
          .describe = DescribeShow,
          .run = Show,
          .examples = {"main__web.sh", "'#local__web.sh' --content"},
          .fields = RecipeFields()};
}

}  // namespace tools
