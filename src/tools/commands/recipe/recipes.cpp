#include "tools/commands/recipe/recipes.h"

#include "fleet/panel.h"
#include "pnl/file.h"
#include "pnl/test.h"
#include "tools/commands/catalogue.h"
#include "tools/frame/login.h"

namespace tools {

std::string RecipeDir(const Context& context) {
  return DirOf(context, "recipes", "recipe_dir");
}

recipe::Manage Recipes(const Context& context) {
  return {"brefirctl", RecipeDir(context)};
}

std::shared_ptr<recipe::RecipeRepo> RecipeRepositories() {
  auto repositories = std::make_shared<recipe::RecipeRepo>();
  for (const auto& [name, info] : repositories->repos) RequireSourceName(name, "repository");
  return repositories;
}

void AddRecipeId(opts::Args& args) {
  args.Positional("ID").Help("a recipe, as 'recipe list' shows it").Completes("recipes");
}

recipe::RecipeInfoPtr FindRecipe(const Context& context, bool with_content) {
  const std::string& word = context.values.Str("ID");
  const auto id = recipe::RecipeId::Parse(word);
  if (!id || !test::PathComponent(id->source) || !test::PathComponent(id->file)) {
    throw UsageError("ID", word,
                     "ID '" + word + "' is not SOURCE__FILE: the name of a repository (or " +
                         recipe::kLocalSource + "), two underscores, a file name");
  }
  try {
    return Recipes(context).GetById(*id, with_content);
  } catch (const pnl_err::Error& error) {
    if (error.type() != recipe::kUnreadable || pnl_file::Exists(error.value())) throw;
    throw pnl_err::Missed("recipe", word)
        .add_param("message",
                   "there is no recipe '" + word + "'; 'brefirctl recipe list' shows all");
  }
}

Change ParamChange(Context& context,
                   const std::function<void(recipe::Manage& manage, const std::string& id)>& edit) {
  const std::string id = FindRecipe(context, false)->id;
  const fleet::Step step =
      fleet::RecipeParamsStep(Recipes(context), [&](recipe::Manage& copy) { edit(copy, id); });
  const auto make = [=, &context, changes = fleet::Changes(step)]() -> Answer {
    recipe::Manage manage = Recipes(context);
    if (changes) edit(manage, id);
    const recipe::RecipeInfoPtr now = FindRecipe(context, false);
    return Record()
        .Add("id", id)
        .Add("access", recipe::AccessLevelToStr(now->access))
        .Add("owner", now->owner);
  };
  return {{step}, make};
}

std::vector<Field> ParamFields() {
  return {{"id", "the recipe"},
          {"access", "who may use it now: none, admin or any"},
          {"owner", "its owner now"}};
}

Record RecipeRecord(const recipe::RecipeInfo& info) {
  Record record;
  AddFields(record, recipe::kRecipeFields, info);
  return record.Add("access", recipe::AccessLevelToStr(info.access));
}

std::vector<Field> RecipeFields() {
  return Fields(FieldsOf(recipe::kRecipeFields),
                {{"access", "who may use it: none, admin or any"}});
}

/// The catalogue for reading the offers of repositories.
recipe::Manage OfferedRecipes(const Context& context) {
  const auto checked = RecipeRepositories();
  return Recipes(context);
}

/// One recipe, with its script only when requested.
int PrintRecipe(Context& context, const recipe::RecipeInfo& info) {
  if (context.values.Has("content") && context.out.ForPeople()) {
    context.out.Text("content", info.content);
    return kDone;
  }
  const Record record = RecipeRecord(info);
  std::vector<std::string> facts;
  for (const auto& [name, value] : record.fields)
    if (name != "content") facts.push_back(name);
  context.out.One(record, facts);
  return kDone;
}

void AddRecipeContent(opts::Args& args) {
  args.Option("content").Help("print only the script; in JSON, add it to the other fields");
}

}  // namespace tools
