#pragma once

#include <functional>
#include <memory>
#include <string>

#include "brefir/recipes.h"
#include "tools/frame/verb.h"

/// What the verbs of the family "recipe" share.
namespace tools {

Verb RecipeListVerb();
Verb RecipeShowVerb();
Verb RecipeFindVerb();
Verb RecipeUpdateVerb();
Verb RecipeRemoveVerb();
Verb RecipeAccessVerb();
Verb RecipeOwnerVerb();
Verb RecipeLintVerb();
Verb RecipeRunVerb();

inline constexpr const char* kRecipeError = "recipe";  ///< type of errors of repositories

/// The directory of --recipes, else recipe_dir of the settings, absolute; the catalogue below it.
[[nodiscard]] std::string RecipeDir(const Context& context);
[[nodiscard]] recipe::Manage Recipes(const Context& context);
/// The repositories, whose names become directories, and the part of ids before the first "__":
/// pnl_err::Error("usage", "repository") for one that cannot.
[[nodiscard]] std::shared_ptr<recipe::RecipeRepo> RecipeRepositories();

/// The positional word ID.
void AddRecipeId(opts::Args& args);
/// The recipe of that id. Throws pnl_err::Error("usage", "ID", word) unless it is a source and a file
/// name, each of which can name a file; pnl_err::Missed("recipe", id) when there is none.
[[nodiscard]] recipe::RecipeInfoPtr FindRecipe(const Context& context, bool with_content);

/// The change of the parameters of the recipe ID by `edit`, and the fields of its answer.
[[nodiscard]] Change ParamChange(
    Context& context,
    const std::function<void(recipe::Manage& manage, const std::string& id)>& edit);
[[nodiscard]] std::vector<Field> ParamFields();

/// The catalogue where it reads what repositories offer.
[[nodiscard]] recipe::Manage OfferedRecipes(const Context& context);

/// What is told of a recipe.
[[nodiscard]] Record RecipeRecord(const recipe::RecipeInfo& info);
[[nodiscard]] std::vector<Field> RecipeFields();
/// Prints one; its script only with the option --content.
[[nodiscard]] int PrintRecipe(Context& context, const recipe::RecipeInfo& info);
void AddRecipeContent(opts::Args& args);

}  // namespace tools
