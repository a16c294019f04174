#include "tools/commands/catalogue.h"

#include <exception>

#include "console/interrupt.h"
#include "fleet/panel.h"
#include "pnl/file.h"
#include "pnl/progress.h"
#include "pnl/test.h"
#include "tools/frame/login.h"

namespace tools {

// --- The command line

void AddCatalogueOptions(opts::Args& args) {
  args.Option("module").Value("NAME").Help("the panel module; default: setting module_name");
  args.Option("version").Value("V").Help("its version; default: setting module_version");
  args.Option("templates").Value("DIR").Help("installed templates; default: setting template_dir");
  args.Option("location")
      .Value("URL")
      .Help("the built-in repository; default: setting template_location");
}

void AddKey(opts::Args& args) {
  args.Positional("KEY").Help("a template, as 'template list' shows it").Completes("templates");
}

void AddInstalledKey(opts::Args& args) {
  args.Positional("KEY")
      .Help("an installed template, as 'template list --installed' shows it")
      .Completes("installed");
}

void AddFilters(opts::Args& args, const char* of) {
  args.Option("repo")
      .Value("NAME")
      .Help(std::string("only those from one ") + of)
      .Completes("repositories");
  args.Option("tag").Value("TAG").Help("only those with this tag");
}

std::string DirOf(const Context& context, const char* option, const char* setting) {
  const std::string dir = context.PathSetting(option, setting);
  return dir.starts_with('/') ? dir : pnl_file::ConcatPath(pnl_file::GetCurrentDir(), dir);
}

std::string TemplateDir(const Context& context) {
  return DirOf(context, "templates", "template_dir");
}

const std::string& RequirePathComponent(const std::string& word, const std::string& what) {
  if (test::PathComponent(word)) return word;
  throw UsageError(what, word,
                   what + " '" + word + "' cannot name a directory: it must not be empty, " +
                       "\".\" or \"..\", and must not contain \"/\"");
}

void RequireSourceName(const std::string& word, const std::string& what) {
  RequirePathComponent(word, what);
  if (ostemplate::TemplateKey::Parse(ostemplate::TemplateKey{word, ""}.Str())->repository != word)
    throw UsageError(what, word,
                     what + " '" + word +
                         "' must not contain \"__\" or end in \"_\": in a key, \"__\" follows it");
}

std::string Key(const Context& context) {
  return RequirePathComponent(context.values.Str("KEY"), "KEY");
}

std::string InstalledKey(const Context& context) {
  std::string key = Key(context);
  if (pnl_file::IsDir(pnl_file::ConcatPath(TemplateDir(context), key))) return key;
  throw pnl_err::Missed("template", key)
      .add_param("message", "no template '" + key + "' is installed in " + TemplateDir(context) +
                                "; 'brefirctl template list --installed' lists the installed ones");
}

// --- Templates and repositories

ostemplate::Manage Catalogue(const Context& context) {
  return {context.Setting("module", "module_name"), context.Setting("version", "module_version"),
          TemplateDir(context), context.Setting("location", "template_location")};
}

ostemplate::OstRepo TemplateRepositories(const Context& context) {
  ostemplate::OstRepo repositories(context.Setting("location", "template_location"));
  for (const auto& [name, info] : repositories.repos) RequirePathComponent(name, "repository");
  return repositories;
}

ostemplate::Manage OfferedTemplates(const Context& context) {
  const ostemplate::OstRepo checked = TemplateRepositories(context);
  return Catalogue(context);
}

namespace {

/// Not derived from pnl_err::Error: such an error would only skip one repository.
struct Interrupted : std::exception {};

}  // namespace

StringSet Fetching(Context& context, const char* type, const char* done,
                   const std::function<void(StringSet& failed)>& work) {
  StringSet failed;
  const console::NotedInterruption interruption;
  const pnl_progress::Watch watch(
      [&](std::string_view what, std::uint64_t got, std::uint64_t total) {
        if (interruption.Happened()) throw Interrupted();
        context.bar.Show(what, got, total);
      });
  try {
    work(failed);
  } catch (const Interrupted&) {
    throw pnl_err::Error(type, "interrupted")
        .add_param("message", "interrupted; repositories that were not fetched yet are unchanged");
  }
  context.bar.Clear();
  for (const std::string& repository : failed) {
    context.Report(pnl_err::Error(type, "load_repo", repository)
                       .add_param("message", "repository '" + repository + "' could not be " +
                                                 done + "; var/brefirctl.log has the reason"));
  }
  return failed;
}

Change UpdateOf(Context& context, const char* type,
                const std::shared_ptr<ostemplate::Repo>& repositories, const std::string& dir) {
  const auto make = [=, &context]() -> Answer {
    const StringSet failed = Fetching(context, type, "updated", [&](StringSet& which) {
      repositories->UpdateCache(dir, true, &which);
    });
    std::vector<Record> records;
    for (const Repository& repository : repositories->repos) {
      const bool updated = !failed.contains(repository.first);
      records.push_back(
          ToRecord(kRepositoryTable, repository).Add("updated", updated).Add("changed", updated));
    }
    return {records, {"key", "location", "builtin", "updated"}};
  };
  return {fleet::FetchPlan(*repositories), make};
}

std::vector<Field> UpdateFields() {
  return Fields(Declared(kRepositoryTable),
                {{"updated", "whether it was fetched; if it was not, its earlier content stays"}});
}

}  // namespace tools
