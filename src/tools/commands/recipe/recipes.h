#pragma once

#include <string>
#include <vector>

#include "brefir/recipes.h"
#include "tools/frame/verb.h"

/// What the verbs of brefirctl recipe share.
namespace tools {

/// The catalogue below --recipes, else recipe_dir of the settings.
[[nodiscard]] recipe::Manage Recipes(const Context& context);
/// Its directory, absolute.
[[nodiscard]] std::string RecipeDir(const Context& context);

/// The positional word ID.
void AddRecipeId(opts::Args& args);
/// The recipe of that id. Throws pnl_err::Error("usage", "ID", word) unless it is a source and a file
/// name, each of which can name a file; pnl_err::Missed("recipe", id) when there is none.
[[nodiscard]] recipe::RecipeInfoPtr FindRecipe(const Context& context, bool with_content);

[[nodiscard]] Verb RecipeLint();
[[nodiscard]] Verb RecipeRun();

}  // namespace tools
