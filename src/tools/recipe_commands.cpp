// recipe: the catalogue of recipes and who may use them.

#include <exception>
#include <filesystem>

#include "fleet/diff.h"
#include "pnl/file.h"
#include "pnl/progress.h"
#include "pnl/test.h"
#include "tools/catalogue.h"
#include "tools/commands.h"
#include "tools/interrupt.h"
#include "tools/recipes.h"

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

std::string RecipeId(const Context& context) {
  const std::string& id = context.values.Str("ID");
  std::string file = id;
  const std::string source = str::GetWord(file, "__");
  if (test::PathComponent(source) && test::PathComponent(file)) return id;
  throw pnl_err::Error("usage", "ID", id)
      .add_param("message", "ID '" + id + "' is not SOURCE__FILE, the name of a repository (or " +
                                recipe::kLocalSource + ") and that of a file in it");
}

recipe::RecipeInfoPtr FindRecipe(const Context& context, const std::string& id, bool with_content) {
  try {
    return Recipes(context).GetById(id, with_content);
  } catch (const pnl_err::Error& error) {
    if (error.type() != recipe::kUnreadable || pnl_file::Exists(error.value())) throw;
    throw pnl_err::Missed("recipe", id)
        .add_param("message",
                   "no recipe '" + id + "'; 'brefirctl recipe list' shows what there is");
  }
}

namespace {

constexpr const char* kErrorType = "recipe";

Record ToRecord(const recipe::RecipeInfo& info) {
  return Record()
      .Add("id", info.id)
      .Add("name", info.name)
      .Add("owner", info.owner)
      .Add("repo", info.repo)
      .Add("tags", info.tags)
      .Add("revision", info.revision)
      .Add("mtime", info.mtime.Str())
      .Add("path", info.path)
      .Add("descriptions", info.descriptions)
      .Add("content", info.content)
      .Add("method", info.method)
      .Add("access", recipe::AccessLevelToStr(info.access));
}

const std::vector<Field> kRecipe = {
    {"id", "source, two underscores, file name: what other commands take"},
    {"name", "from its header"},
    {"owner", "the user who may use it besides the administrator; empty for none"},
    {"repo", "its source: a repository, or #local"},
    {"tags", "from its header"},
    {"revision", "from its header"},
    {"mtime", "when its file was changed: YYYY-MM-DD HH:MM:SS, UTC"},
    {"path", "its file"},
    {"descriptions", "texts by language code, from its header"},
    {"content", "the script, with --content; else empty"},
    {"method", "how it is run: ssh, or winrm for .ps1 and .bat"},
    {"access", "who may use it: none, admin or any"},
};

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
  (void)Repositories();
  recipe::RecipeMap recipes;
  StringSet failed;
  Fetching(context, [&] { Recipes(context).List(recipes, &failed); });
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
  return Print(context, *FindRecipe(context, RecipeId(context), context.values.Has("content")));
}

int Find(Context& context) {
  (void)Repositories();
  const std::string& name = context.values.Str("NAME");
  const std::vector<std::string>& tags = context.values.List("tag");
  const recipe::RecipeInfoPtr found = Fetching(context, [&] {
    return Recipes(context).FindByName(name, {tags.begin(), tags.end()},
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
  Fetching(context, [&] {
    repositories.UpdateCache(pnl_file::ConcatPath(RecipeDir(context), "repo"), true, &failed);
  });
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
  const std::string id = RecipeId(context);
  const recipe::RecipeInfoPtr info = FindRecipe(context, id, false);
  RequireInside(context, *info);
  const bool removed = !context.values.Has("dry-run") && Recipes(context).Delete(id);
  context.out.One(Record().Add("id", id).Add("removed", removed).Add("path", info->path));
  return kDone;
}

/// What `change` would do to the parameter file, as a diff: it is done to a copy.
template <class Change>
std::string Preview(const Context& context, const Change& change) {
  const std::string path = pnl_file::ConcatPath(RecipeDir(context), "metadata.xml");
  const std::string before = pnl_file::Read(path);
  const pnl_file::TmpDir scratch(
      pnl_file::ConcatPath(std::filesystem::temp_directory_path().string(), "recipes"));
  const std::string copy = pnl_file::ConcatPath(scratch.Str(), "metadata.xml");
  if (!before.empty()) pnl_file::Write(copy, before);
  recipe::Manage manage("", scratch);
  change(manage);
  return fleet::UnifiedDiff(before, pnl_file::ReadE(copy), path);
}

template <class Change>
int ChangeParams(Context& context, const Change& change) {
  const std::string id = RecipeId(context);
  (void)FindRecipe(context, id, false);
  if (context.values.Has("dry-run")) {
    context.out.Text("diff", Preview(context, [&](recipe::Manage& manage) { change(manage, id); }));
    return kDone;
  }
  recipe::Manage manage = Recipes(context);
  change(manage, id);
  const recipe::RecipeInfoPtr now = FindRecipe(context, id, false);
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
      "recipe",
      "Recipes: scripts for freshly installed servers.",
      DescribeFamily,
      {{"list",
        "Lists the recipes of all repositories and the local ones.",
        DescribeList,
        List,
        {"", "--tag debian -o json"},
        kRecipe},
       {"show",
        "Shows all that is known of one recipe.",
        DescribeShow,
        Show,
        {"main__web.sh", "'#local__web.sh' --content"},
        kRecipe},
       {"find",
        "Finds a recipe by name and tags, a local one first.",
        DescribeFind,
        Find,
        {"'Web server' --tag debian"},
        kRecipe},
       {"update",
        "Fetches the recipes of every repository.",
        nullptr,
        Update,
        {""},
        kUpdatedFields},
       {"delete",
        "Deletes a recipe with its access level and owner.",
        DescribeDelete,
        Delete,
        {"'#local__web.sh' --dry-run"},
        {{"id", "the recipe"}, {"removed", "false with --dry-run"}, {"path", "its file"}}},
       {"access",
        "Sets who may use a recipe; updates keep it.",
        DescribeAccess,
        Access,
        {"main__web.sh admin"},
        kParams},
       {"owner",
        "Gives a recipe to a user; updates keep it.",
        DescribeOwner,
        Owner,
        {"main__web.sh alice"},
        kParams},
       RecipeLint(),
       RecipeRun()},
      {{"etc/ostemplates.conf", "repositories of recipes"},
       {"var/recipes/repo", "what they brought, unless recipe_dir of the settings says otherwise"},
       {"var/recipes/local", "recipes of your own"},
       {"var/recipes/metadata.xml", "access levels and owners"},
       {"var/recipes/log", "what came of runs: exit code and the end of the output"}},
      {"brefir-recipe(5)", "ostemplates.conf(5)", "brefir.conf(5)"}};
}

}  // namespace tools
