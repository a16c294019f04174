// recipe: the catalogue of recipes and who may use them.

#include "tools/commands/families.h"
#include "tools/commands/recipe/recipes.h"

namespace tools {

static void DescribeFamily(opts::Args& args) {
  args.Details(
      "Recipes come from the repositories of etc/ostemplates.conf and from the directory 'local' "
      "below recipe_dir. An ID is the repository (or #local), two underscores and the name of the "
      "file. In a shell, put an ID that begins with # in quotes.");
  args.Option("recipes").Value("DIR").Help("the directory of recipes; default: setting recipe_dir");
}

Family RecipeFamily() {
  return {.name = "recipe",
          .summary = "Recipes: scripts for freshly installed servers.",
          .describe = DescribeFamily,
          .verbs = {RecipeListVerb(), RecipeShowVerb(), RecipeFindVerb(), RecipeUpdateVerb(),
                    RecipeRemoveVerb(), RecipeAccessVerb(), RecipeOwnerVerb(), RecipeLintVerb(),
                    RecipeRunVerb()},
          .files = {{"etc/ostemplates.conf", "repositories of recipes"},
                    {"var/recipes/repo", "recipes of repositories (setting recipe_dir)"},
                    {"var/recipes/local", "recipes of your own"},
                    {"var/recipes/metadata.xml", "access levels and owners"},
                    {"var/recipes/log", "results of runs: exit code and the end of the output"}},
          .see_also = {"brefir-recipe(5)", "ostemplates.conf(5)", "brefir.conf(5)"}};
}

}  // namespace tools
