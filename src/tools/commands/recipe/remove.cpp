#include "pnl/file.h"
#include "pnl/proc.h"
#include "tools/commands/recipe/recipes.h"

namespace tools {

static Change Remove(Context& context) {
  const recipe::RecipeInfoPtr info = FindRecipe(context, false);
  // A local recipe may be a link; removing must not remove its target.
  if (!info->path.starts_with(pnl_file::RealPath(RecipeDir(context)) + "/")) {
    throw pnl_err::Access("recipe", info->id)
        .add_param("message", "recipe '" + info->id + "' is a link to '" + info->path +
                                  "'; remove the link yourself if you want that");
  }
  const auto make = [=, manage = Recipes(context)]() mutable -> Answer {
    const bool removed = manage.Delete(info->id);
    return Record().Add("id", info->id).Add("removed", removed).Add("path", info->path);
  };
  return {
      {{.node = "localhost", .object = info->path, .words = "rm " + pnl_proc::Escape(info->path)}},
      make};
}

Verb RecipeRemoveVerb() {
  return {
      .name = "remove",
      .summary = "Removes a recipe with its access level and owner.",
      .aliases = {"del", "delete"},
      .describe = AddRecipeId,
      .change = Remove,
      .checks = true,
      .examples = {"'#local__web.sh' --dry-run"},
      .fields = {
          {"id", "the recipe"}, {"removed", "false if it was gone already"}, {"path", "its file"}}};
}

}  // namespace tools
