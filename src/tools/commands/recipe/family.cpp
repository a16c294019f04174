// recipe: the catalogue of recipes and who may use them.

#include <exception>
#include <filesystem>

#include "fleet/diff.h"
#include "pnl/file.h"
#include "pnl/progress.h"
#include "pnl/test.h"
#include "tools/commands/catalogue.h"
#include "tools/commands/families.h"
#include "tools/commands/recipe/recipes.h"
#include "tools/frame/field_table.h"
#include "tools/frame/interrupt.h"

namespace tools {

std::string RecipeDir(const Context& context) {
  const std::string dir = context.PathSetting("recipes", "recipe_dir");
  return dir.starts_with('/') ? dir : pnl_file::ConcatPath(pnl_file::GetCurrentDir(), dir);
}

recipe::Manage Recipes(const Context& context) {
  return {"brefirctl", RecipeDir(context)};
}

void AddRecipeId(opts::Args& args) {
  args.Positional("ID").Help("a recipe, as 'recipe list' shows it").Completes("recipes");
}

namespace {

recipe::RecipeId ParseId(const std::string& text) {
  const auto id = recipe::RecipeId::Parse(text);
  if (id && test::PathComponent(id->source) && test::PathComponent(id->file)) return *id;
  throw pnl_err::Error("usage", "ID", text)
      .add_param("message", "ID '" + text + "' is not SOURCE__FILE, the name of a repository (or " +
                                recipe::kLocalSource + ") and that of a file in it");
}

}  // namespace

recipe::RecipeInfoPtr FindRecipe(const Context& context, bool with_content) {
  const recipe::RecipeId id = ParseId(context.values.Str("ID"));
  try {
    return Recipes(context).GetById(id, with_content);
  } catch (const pnl_err::Error& error) {
    if (error.type() != recipe::kUnreadable || pnl_file::Exists(error.value())) throw;
    throw pnl_err::Missed("recipe", id.Str())
        .add_param("message",
                   "no recipe '" + id.Str() + "'; 'brefirctl recipe list' shows what there is");
  }
}

namespace {

constexpr const char* kErrorType = "recipe";

Record ToRecord(const recipe::RecipeInfo& info) {
  Record record;
  AddFields(record, recipe::kRecipeFields, info);
  return record.Add("access", recipe::AccessLevelToStr(info.access));
}

const std::vector<Field> kRecipe =
    Fields(FieldsOf(recipe::kRecipeFields), {{"access", "who may use it: none, admin or any"}});

const std::vector<Field> kParams = {
    {"id", "the recipe"},
    {"access", "who may use it now: none, admin or any"},
    {"owner", "its owner now"},
    kDiffField,
};

const std::vector<std::string> kFacts = {"id",           "name",     "owner", "repo",
                                         "tags",         "revision", "mtime", "path",
                                         "descriptions", "method",   "access"};

/// Repositories become directories, and the part of ids before the first "__".
recipe::RecipeRepo Repositories() {
  recipe::RecipeRepo repositories;
  for (const auto& [name, info] : repositories.repos) RequireSourceName(name, "repository");
  return repositories;
}

/// The catalogue where it reads what they offer.
recipe::Manage OfferedRecipes(const Context& context) {
  const recipe::RecipeRepo checked = Repositories();
  return Recipes(context);
}

/// Not an error of the platform: those concern one repository, and the next one would be fetched.
struct Interrupted : std::exception {};

/// Does `work`, which may fetch repositories. An interruption ends it between two blocks, so that
/// nothing half unpacked is left.
template <class Work>
auto Fetching(Context& context, const Work& work) {
  const NotedInterruption interruption;
  const pnl_progress::Watch watch(
      [&](std::string_view what, std::uint64_t done, std::uint64_t total) {
        if (interruption.Happened()) throw Interrupted();
        context.bar.Show(what, done, total);
      });
  try {
    return work();
  } catch (const Interrupted&) {
    throw pnl_err::Error("recipe", "interrupted")
        .add_param("message", "interrupted; what was not fetched yet stays as it was");
  }
}

// --- Looking

int List(Context& context) {
  recipe::RecipeMap recipes;
  StringSet failed;
  Fetching(context, [&] { OfferedRecipes(context).List(recipes, &failed); });
  const opts::Values& values = context.values;
  std::vector<Record> records;
  for (const auto& [id, info] : recipes) {
    if (values.Has("repo") && info.repo != values.Str("repo")) continue;
    if (values.Has("tag") && !info.tags.contains(values.Str("tag"))) continue;
    records.push_back(ToRecord(info));
  }
  context.bar.Clear();
  context.out.List(records, {"id", "name", "revision", "tags", "method", "access", "owner"});
  ReportFailed(context, kErrorType, failed, "listed");
  return kDone;
}

/// One recipe; its script is for those who asked.
int Print(Context& context, const recipe::RecipeInfo& info) {
  if (context.values.Has("content") && context.out.GetFormat() == Format::kTable) {
    context.out.Text("content", info.content);
  } else {
    context.out.One(ToRecord(info), kFacts);
  }
  return kDone;
}

int Show(Context& context) {
  return Print(context, *FindRecipe(context, context.values.Has("content")));
}

int Find(Context& context) {
  const std::string& name = context.values.Str("NAME");
  const std::vector<std::string>& tags = context.values.List("tag");
  const recipe::RecipeInfoPtr found = Fetching(context, [&] {
    return OfferedRecipes(context).FindByName(name, {tags.begin(), tags.end()},
                                              context.values.Has("content"));
  });
  context.bar.Clear();
  if (!found) {
    throw pnl_err::Missed("recipe", name)
        .add_param("message", "no recipe '" + name + "' has one of these tags");
  }
  return Print(context, *found);
}

// --- Changing

int Update(Context& context) {
  StringSet failed;
  recipe::RecipeRepo repositories = Repositories();
  Fetching(context, [&] { repositories.UpdateCache(Recipes(context).RepoDir(), true, &failed); });
  TellUpdated(context, kErrorType, repositories, failed);
  return kDone;
}

/// A local recipe may be a link, and it is the file at its end that would go.
void RequireInside(const Context& context, const recipe::RecipeInfo& info) {
  if (info.path.starts_with(pnl_file::RealPath(RecipeDir(context)) + "/")) return;
  throw pnl_err::Access("recipe", info.id)
      .add_param("message", "recipe '" + info.id + "' is a link to '" + info.path +
                                "'; remove the link yourself if that is meant");
}

int Delete(Context& context) {
  const recipe::RecipeInfoPtr info = FindRecipe(context, false);
  RequireInside(context, *info);
  const bool removed = !context.values.Has("dry-run") && Recipes(context).Delete(info->id);
  context.out.One(Record().Add("id", info->id).Add("removed", removed).Add("path", info->path));
  return kDone;
}

/// What `change` would do to the parameter file, as a diff: it is done to a copy.
template <class Change>
std::string Preview(const Context& context, const Change& change) {
  const std::string path = Recipes(context).ParamsFile();
  const std::string before = pnl_file::Read(path);
  const pnl_file::TmpDir scratch(
      pnl_file::ConcatPath(std::filesystem::temp_directory_path().string(), "recipes"));
  recipe::Manage manage("", scratch);
  if (!before.empty()) pnl_file::Write(manage.ParamsFile(), before);
  change(manage);
  return fleet::UnifiedDiff(before, pnl_file::ReadE(manage.ParamsFile()), path);
}

template <class Change>
int ChangeParams(Context& context, const Change& change) {
  const std::string id = FindRecipe(context, false)->id;
  if (context.values.Has("dry-run")) {
    context.out.Text("diff", Preview(context, [&](recipe::Manage& manage) { change(manage, id); }));
    return kDone;
  }
  recipe::Manage manage = Recipes(context);
  change(manage, id);
  const recipe::RecipeInfoPtr now = FindRecipe(context, false);
  context.out.One(Record()
                      .Add("id", id)
                      .Add("access", recipe::AccessLevelToStr(now->access))
                      .Add("owner", now->owner));
  return kDone;
}

int Access(Context& context) {
  return ChangeParams(context, [&](recipe::Manage& manage, const std::string& id) {
    manage.SetAccessLevel(id, recipe::StrToAccessLevel(context.values.Str("LEVEL")));
  });
}

int Owner(Context& context) {
  return ChangeParams(context, [&](recipe::Manage& manage, const std::string& id) {
    manage.SetOwner(id, context.values.Str("USER"));
  });
}

// --- The command line

void DescribeFamily(opts::Args& args) {
  args.Details(
      "Recipes come from the repositories of etc/ostemplates.conf and from the directory local of "
      "the recipes. An ID is the repository, or #local, two underscores and the file's name; the "
      "shell wants quotes around one that begins with #.");
  args.Option("recipes").Value("DIR").Help(
      "the recipes and their parameters; else recipe_dir of the settings");
}

void DescribeList(opts::Args& args) {
  args.Option("repo")
      .Value("NAME")
      .Help("only those of one source: a repository, or #local")
      .Completes("repositories");
  args.Option("tag").Value("TAG").Help("only those with this tag");
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

void DescribeDelete(opts::Args& args) {
  AddRecipeId(args);
  args.Option("dry-run").Help("tell what would be removed");
}

void DescribeDryRun(opts::Args& args) {
  args.Option("dry-run").Help("show the change as a diff");
}

void DescribeAccess(opts::Args& args) {
  AddRecipeId(args);
  args.Positional("LEVEL").OneOf({"none", "admin", "any"}).Help("who may use it");
  DescribeDryRun(args);
}

void DescribeOwner(opts::Args& args) {
  AddRecipeId(args);
  args.Positional("USER").Help("who may use it besides the administrator; '' for nobody");
  DescribeDryRun(args);
}

}  // namespace

Family RecipeFamily() {
  return {
      .name = "recipe",
      .summary = "Recipes: scripts for freshly installed servers.",
      .describe = DescribeFamily,
      .verbs =
          {
              {
                  .name = "list",
                  .summary = "Lists the recipes of all repositories and the local ones.",
                  .describe = DescribeList,
                  .run = List,
                  .examples = {"", "--tag debian -o json"},
                  .fields = kRecipe,
              },
              {
                  .name = "show",
                  .summary = "Shows all that is known of one recipe.",
                  .describe = DescribeShow,
                  .run = Show,
                  .examples = {"main__web.sh", "'#local__web.sh' --content"},
                  .fields = kRecipe,
              },
              {
                  .name = "find",
                  .summary = "Finds a recipe by name and tags, a local one first.",
                  .describe = DescribeFind,
                  .run = Find,
                  .examples = {"'Web server' --tag debian"},
                  .fields = kRecipe,
              },
              {
                  .name = "update",
                  .summary = "Fetches the recipes of every repository.",
                  .run = Update,
                  .examples = {""},
                  .fields = kUpdatedFields,
              },
              {
                  .name = "delete",
                  .summary = "Deletes a recipe with its access level and owner.",
                  .describe = DescribeDelete,
                  .run = Delete,
                  .examples = {"'#local__web.sh' --dry-run"},
                  .fields = {{"id", "the recipe"},
                             {"removed", "false with --dry-run"},
                             {"path", "its file"}},
              },
              {
                  .name = "access",
                  .summary = "Sets who may use a recipe; updates keep it.",
                  .describe = DescribeAccess,
                  .run = Access,
                  .examples = {"main__web.sh admin"},
                  .fields = kParams,
              },
              {
                  .name = "owner",
                  .summary = "Gives a recipe to a user; updates keep it.",
                  .describe = DescribeOwner,
                  .run = Owner,
                  .examples = {"main__web.sh alice"},
                  .fields = kParams,
              },
              RecipeLint(),
              RecipeRun(),
          },
      .files = {{"etc/ostemplates.conf", "repositories of recipes"},
                {"var/recipes/repo",
                 "what they brought, unless recipe_dir of the settings says otherwise"},
                {"var/recipes/local", "recipes of your own"},
                {"var/recipes/metadata.xml", "access levels and owners"},
                {"var/recipes/log", "what came of runs: exit code and the end of the output"}},
      .see_also = {"brefir-recipe(5)", "ostemplates.conf(5)", "brefir.conf(5)"},
  };
}

}  // namespace tools
