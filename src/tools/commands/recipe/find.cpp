#include "tools/commands/catalogue.h"
#include "tools/commands/recipe/recipes.h"

namespace tools {

static int Find(Context& context) {
  const std::string& name = context.values.Str("NAME");
  const std::vector<std::string>& tags = context.values.List("tag");
  const recipe::Manage catalogue = OfferedRecipes(context);
  recipe::RecipeInfoPtr found;
  Fetching(context, kRecipeError, "listed", [&](StringSet& /*failed*/) {
    found = catalogue.FindByName(name, {tags.begin(), tags.end()}, context.values.Has("content"));
  });
  if (found) return PrintRecipe(context, *found);
  throw pnl_err::Missed("recipe", name)
      .add_param("message", "no recipe '" + name + "' has one of these tags");
}

static void DescribeFind(opts::Args& args) {
  args.Positional("NAME").Help("the name in the recipe's header");
  args.Option("tag").Value("TAG").Repeated().Required().Help(
      "a tag of the recipe; if several are given, one of them must match");
  AddRecipeContent(args);
}

Verb RecipeFindVerb() {
  return {.name = "find",
          .summary = "Finds a recipe by name and tags; local recipes come first.",
          .describe = DescribeFind,
          .run = Find,
          .examples = {"'Web server' --tag debian"},
          .fields = RecipeFields()};
}

}  // namespace tools
