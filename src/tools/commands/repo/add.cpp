#include "fleet/panel.h"
#include "pnl/fetch.h"
#include "tools/commands/repo/repos.h"
#include "tools/frame/login.h"

namespace tools {

/// A word that the file cannot hold is a wrong command line.
static void SetLocation(ostemplate::Repo& repositories, const std::string& name,
                        const std::string& location) try {
  repositories.Set(name, location);
} catch (const pnl_err::Error& error) {
  if (error.type() != kParserError) throw;
  throw UsageError(error.param("field"), str::WithoutCredentials(error.value()),
                   str::WithoutCredentials(ErrorText(error, Format::kTable)));
}

static Change Add(Context& context) {
  const std::string kind = context.values.Str("KIND");
  const std::string name = context.values.Str("NAME");
  const std::string location = context.values.Str("LOCATION");
  RequireSourceName(name, "NAME");
  if (const std::string shown = str::WithoutCredentials(location); !pnl_rpc::CanFetch(location))
    throw UsageError("LOCATION", shown,
                     "LOCATION '" + shown + "' is not an address of the form " +
                         "http://HOST/PATH, https://HOST/PATH, ftp://HOST/PATH or file:///PATH");
  const auto repositories = Repositories(kind);
  const fleet::Step step = fleet::RepositoryStep(*repositories, name, location);
  const auto make = [=]() -> Answer {
    if (fleet::Changes(step)) SetLocation(*repositories, name, location);
    return ToRecord(kRepositoryTable, *repositories->repos.find(name), Record().Add("kind", kind));
  };
  return {{step}, make};
}

static void Describe(opts::Args& args) {
  AddKindAndName(args);
  args.Positional("LOCATION")
      .Help("the address of the directory with metadata.xml, or of the recipe archive");
}

Verb RepoAddVerb() {
  return {.name = "add",
          .summary = "Adds a repository or changes its location.",
          .describe = Describe,
          .change = Add,
          .checks = true,
          .examples = {"ostemplates main https://templates.example.org/os",
                       "recipes main https://templates.example.org/recipes.tar.gz"},
          .fields = Fields({kRepositoryKind}, Declared(kRepositoryTable))};
}

}  // namespace tools
