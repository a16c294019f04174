// repo: the repositories of templates and recipes.

#include <memory>

#include "brefir/recipes.h"
#include "pnl/settings.h"
#include "tools/commands/catalogue.h"
#include "tools/commands/families.h"
#include "tools/commands/login.h"

namespace tools {
namespace {

constexpr const char* kTemplates = "ostemplates";
constexpr const char* kRecipes = "recipes";

/// The repositories of one kind, to be listed and edited.
std::unique_ptr<ostemplate::Repo> Repositories(const std::string& kind) {
  if (kind == kRecipes) return std::make_unique<recipe::RecipeRepo>();
  return std::make_unique<ostemplate::OstRepo>(pnl_settings::Get("template_location"));
}

Record ToRecord(const std::string& kind, const std::string& name,
                const ostemplate::Repo::RepoInfo& info) {
  return Record()
      .Add("kind", kind)
      .Add("key", name)
      .Add("location", str::WithoutCredentials(info.location))
      .Add("builtin", info.builtin);
}

int List(Context& context) {
  std::vector<Record> records;
  for (const char* kind : {kTemplates, kRecipes}) {
    if (context.values.Has("KIND") && context.values.Str("KIND") != kind) continue;
    const auto repositories = Repositories(kind);
    for (const auto& [name, info] : repositories->repos)
      records.push_back(ToRecord(kind, name, info));
  }
  context.out.List(records);
  return kDone;
}

/// What a download takes: an address with one of its schemes and, but for files, a host.
void RequireAddress(const std::string& location) {
  std::string rest = location;
  const std::string scheme = str::Lower(str::GetWord(rest, "://"));
  const bool remote = scheme == "http" || scheme == "https" || scheme == "ftp";
  if (remote && !rest.empty() && !rest.starts_with('/')) return;
  if (scheme == "file" && rest.size() > 1 && rest.starts_with('/')) return;
  throw UsageError("LOCATION", str::WithoutCredentials(location),
                   "LOCATION '" + str::WithoutCredentials(location) +
                       "' is no address that can be fetched: http://HOST/PATH, https://HOST/PATH, "
                       "ftp://HOST/PATH or file:///PATH");
}

/// A word that the file cannot hold is a wrong command line.
void SetLocation(ostemplate::Repo& repositories, const std::string& name,
                 const std::string& location) try {
  repositories.Set(name, location);
} catch (const pnl_err::Error& error) {
  if (error.type() != kParserError) throw;
  throw UsageError(error.param("field"), str::WithoutCredentials(error.value()),
                   str::WithoutCredentials(ErrorText(error, Format::kTable)));
}

int Add(Context& context) {
  const std::string& kind = context.values.Str("KIND");
  const std::string& name = context.values.Str("NAME");
  RequireSourceName(name, "NAME");
  RequireAddress(context.values.Str("LOCATION"));
  const auto repositories = Repositories(kind);
  SetLocation(*repositories, name, context.values.Str("LOCATION"));
  context.out.One(ToRecord(kind, name, repositories->repos.at(name)));
  return kDone;
}

int Delete(Context& context) {
  const std::string& kind = context.values.Str("KIND");
  const std::string& name = context.values.Str("NAME");
  if (!Repositories(kind)->Delete(name)) {
    throw pnl_err::Missed("repo", name)
        .add_param("message",
                   "etc/ostemplates.conf has no repository '" + name + "' of kind " + kind);
  }
  context.out.One(Record().Add("kind", kind).Add("key", name).Add("deleted", true));
  return kDone;
}

const std::vector<Field> kRepository = {
    {"kind", "ostemplates or recipes"},
    {"key", "the repository: what other commands take"},
    {"location", "address of its index (templates) or archive (recipes), without credentials"},
    {"builtin", "true unless etc/ostemplates.conf names it"},
};

opts::Arg& AddKind(opts::Args& args) {
  return args.Positional("KIND").OneOf({kTemplates, kRecipes}).Help("what the repository holds");
}

void DescribeList(opts::Args& args) {
  AddKind(args).Optional();
}

void DescribeAdd(opts::Args& args) {
  AddKind(args);
  args.Positional("NAME").Help("the repository");
  args.Positional("LOCATION")
      .Help("the address that its index metadata.xml is below, or that of its recipe archive");
}

void DescribeDelete(opts::Args& args) {
  AddKind(args);
  args.Positional("NAME").Help("the repository").Completes("repositories");
}

}  // namespace

Family RepoFamily() {
  return {
      .name = "repo",
      .summary = "Repositories of templates and recipes, in etc/ostemplates.conf.",
      .verbs =
          {
              {
                  .name = "list",
                  .summary = "Lists the repositories, the built-in ones too.",
                  .describe = DescribeList,
                  .run = List,
                  .examples = {"", "recipes"},
                  .fields = kRepository,
              },
              {
                  .name = "add",
                  .summary = "Adds a repository or changes its location.",
                  .describe = DescribeAdd,
                  .run = Add,
                  .examples = {"ostemplates main https://templates.example.org/os",
                               "recipes main https://templates.example.org/recipes.tar.gz"},
                  .fields = kRepository,
              },
              {
                  .name = "delete",
                  .summary = "Deletes a repository from the list.",
                  .describe = DescribeDelete,
                  .run = Delete,
                  .examples = {"recipes main"},
                  .fields = {{"kind", "ostemplates or recipes"},
                             {"key", "the repository"},
                             {"deleted", "true"}},
              },
          },
      .files = {{"etc/ostemplates.conf", "the list"}},
      .see_also = {"ostemplates.conf(5)", "brefirctl-template(1)", "brefirctl-recipe(1)"},
  };
}

}  // namespace tools
