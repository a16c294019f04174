#include "tools/commands/catalogue.h"
#include "tools/commands/recipe/recipes.h"

namespace tools {
namespace {

Record ToRecord(const recipe::RecipeInfo& info) {
  Record record;
  AddFields(record, recipe::kRecipeFields, info);
  return record.Add("access", recipe::AccessLevelToStr(info.access));
}

std::vector<Field> RecipeFields() {
  return Fields(FieldsOf(recipe::kRecipeFields),
                {{"access", "who may use it: none, admin or any"}});
}

/// The catalogue where it reads what repositories offer.
recipe::Manage OfferedRecipes(const Context& context) {
  const auto checked = RecipeRepositories();
  return Recipes(context);
}

int List(Context& context) {
  recipe::RecipeMap recipes;
  const recipe::Manage catalogue = OfferedRecipes(context);
  Fetching(context, kRecipeError, "listed",
           [&](StringSet& failed) { catalogue.List(recipes, &failed); });
  std::vector<Record> records;
  for (const auto& [id, info] : recipes) {
    if (IsWanted(context.values, info)) records.push_back(ToRecord(info));
  }
  context.out.List(records, {"id", "name", "revision", "tags", "method", "access", "owner"});
  return kDone;
}

/// One recipe; its script is for those who asked.
int Print(Context& context, const recipe::RecipeInfo& info) {
  if (context.values.Has("content") && context.out.GetFormat() == Format::kTable) {
    context.out.Text("content", info.content);
    return kDone;
  }
  const Record record = ToRecord(info);
  std::vector<std::string> facts;
  for (const auto& [name, value] : record.fields)
    if (name != "content") facts.push_back(name);
  context.out.One(record, facts);
  return kDone;
}

int Show(Context& context) {
  return Print(context, *FindRecipe(context, context.values.Has("content")));
}

int Find(Context& context) {
  const std::string& name = context.values.Str("NAME");
  const std::vector<std::string>& tags = context.values.List("tag");
  const recipe::Manage catalogue = OfferedRecipes(context);
  recipe::RecipeInfoPtr found;
  Fetching(context, kRecipeError, "listed", [&](StringSet& /*failed*/) {
    found = catalogue.FindByName(name, {tags.begin(), tags.end()}, context.values.Has("content"));
  });
  if (found) return Print(context, *found);
  throw pnl_err::Missed("recipe", name)
      .add_param("message", "no recipe '" + name + "' has one of these tags");
}

void DescribeContent(opts::Args& args) {
  args.Option("content").Help("the script too; for people nothing else");
}

void DescribeShow(opts::Args& args) {
  AddRecipeId(args);
  DescribeContent(args);
}

void DescribeFind(opts::Args& args) {
  args.Positional("NAME").Help("the name in the recipe's header");
  args.Option("tag").Value("TAG").Repeated().Required().Help(
      "a tag that it may have; one of several is enough");
  DescribeContent(args);
}

}  // namespace

Verb RecipeListVerb() {
  return {.name = "list",
          .summary = "Lists the recipes of all repositories and the local ones.",
          .describe = [](opts::Args& args) { AddFilters(args, "source: a repository, or #local"); },
          .run = List,
          .examples = {"", "--tag debian -o json"},
          .fields = RecipeFields()};
}

Verb RecipeShowVerb() {
  return {.name = "show",
          .summary = "Shows all that is known of one recipe.",
          .describe = DescribeShow,
          .run = Show,
          .examples = {"main__web.sh", "'#local__web.sh' --content"},
          .fields = RecipeFields()};
}

Verb RecipeFindVerb() {
  return {.name = "find",
          .summary = "Finds a recipe by name and tags, a local one first.",
          .describe = DescribeFind,
          .run = Find,
          .examples = {"'Web server' --tag debian"},
          .fields = RecipeFields()};
}

}  // namespace tools
