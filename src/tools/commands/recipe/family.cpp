// recipe: the catalogue of recipes and who may use them.

#include "tools/commands/families.h"
#include "tools/commands/recipe/recipes.h"

namespace tools {

static void DescribeFamily(opts::Args& args) {
  args.Details(
      "Recipes come from the repositories of etc/ostemplates.conf and from the directory local of "
      "the recipes. An ID is the repository, or #local, two underscores and the file's name; the "
      "shell wants quotes around one that begins with #.");
  args.Option("recipes").Value("DIR").Help(
      "the recipes and their parameters; else recipe_dir of the settings");
}

Family RecipeFamily() {
  return {.name = "recipe",
          .summary = "Recipes: scripts for freshly installed servers.",
          .describe = DescribeFamily,
          .verbs = {RecipeListVerb(), RecipeShowVerb(), RecipeFindVerb(), RecipeUpdateVerb(),
                    RecipeRemoveVerb(), RecipeAccessVerb(), RecipeOwnerVerb(), RecipeLintVerb(),
                    RecipeRunVerb()},
          .files = {{"etc/ostemplates.conf", "repositories of recipes"},
                    {"var/recipes/repo",
                     "what they brought, unless recipe_dir of the settings says otherwise"},
                    {"var/recipes/local", "recipes of your own"},
                    {"var/recipes/metadata.xml", "access levels and owners"},
                    {"var/recipes/log", "what came of runs: exit code and the end of the output"}},
          .see_also = {"brefir-recipe(5)", "ostemplates.conf(5)", "brefir.conf(5)"}};
}

}  // namespace tools
