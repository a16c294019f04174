#include "tools/commands/catalogue.h"
#include "tools/commands/recipe/recipes.h"

namespace tools {

static int List(Context& context) {
  recipe::RecipeMap recipes;
  const recipe::Manage catalogue = OfferedRecipes(context);
  Fetching(context, kRecipeError, "listed",
           [&](StringSet& failed) { catalogue.List(recipes, &failed); });
  std::vector<Record> records;
  for (const auto& [id, info] : recipes) {
    if (IsWanted(context.values, info)) records.push_back(RecipeRecord(info));
  }
  context.out.List(records, {"id", "name", "revision", "tags", "method", "access", "owner"});
  return kDone;
}

Verb RecipeListVerb() {
  return {.name = "list",
          .summary = "Lists the recipes of all repositories and the local recipes.",
          .describe = [](opts::Args& args) { AddFilters(args, "source: a repository, or #local"); },
          .run = List,
          .examples = {"", "--tag debian -o json"},
          .fields = RecipeFields()};
}

}  // namespace tools
