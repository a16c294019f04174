#include "tools/commands/catalogue.h"

#include "pnl/file.h"
#include "pnl/test.h"

namespace tools {

void AddCatalogueOptions(opts::Args& args) {
  args.Option("module").Value("NAME").Help("the panel module; else module_name of the settings");
  args.Option("version").Value("V").Help("its version; else module_version of the settings");
  args.Option("templates")
      .Value("DIR")
      .Help("the installed templates; else template_dir of the settings");
  args.Option("location")
      .Value("URL")
      .Help("the built-in repository; else template_location of the settings");
}

void AddKey(opts::Args& args) {
  args.Positional("KEY").Help("a template, as 'template list' shows it").Completes("templates");
}

void AddInstalledKey(opts::Args& args) {
  args.Positional("KEY")
      .Help("an installed template, as 'template list --installed' shows it")
      .Completes("installed");
}

std::string TemplateDir(const Context& context) {
  const std::string dir = context.PathSetting("templates", "template_dir");
  return dir.starts_with('/') ? dir : pnl_file::ConcatPath(pnl_file::GetCurrentDir(), dir);
}

ostemplate::Manage Catalogue(const Context& context) {
  return {context.Setting("module", "module_name"), context.Setting("version", "module_version"),
          TemplateDir(context), context.Setting("location", "template_location")};
}

ostemplate::OstRepo TemplateRepositories(const Context& context) {
  ostemplate::OstRepo repositories(context.Setting("location", "template_location"));
  for (const auto& [name, info] : repositories.repos) {
    RequirePathComponent(name, "repository");
  }
  return repositories;
}

ostemplate::Manage OfferedTemplates(const Context& context) {
  const ostemplate::OstRepo checked = TemplateRepositories(context);
  return Catalogue(context);
}

std::string Key(const Context& context) {
  const std::string& key = context.values.Str("KEY");
  RequirePathComponent(key, "KEY");
  return key;
}

std::string InstalledKey(const Context& context) {
  std::string key = Key(context);
  if (!pnl_file::IsDir(pnl_file::ConcatPath(TemplateDir(context), key))) {
    throw pnl_err::Missed("template", key)
        .add_param("message", "no template '" + key + "' is installed in " + TemplateDir(context) +
                                  "; 'brefirctl template list --installed' shows what is");
  }
  return key;
}

void RequirePathComponent(const std::string& word, const std::string& what) {
  if (test::PathComponent(word)) return;
  throw pnl_err::Error("usage", what, word)
      .add_param("message", what + " '" + word +
                                "' cannot name a directory: it must not be empty, " +
                                "\".\" or \"..\", nor hold a \"/\"");
}

void RequireSourceName(const std::string& word, const std::string& what) {
  RequirePathComponent(word, what);
  if (ostemplate::TemplateKey::Parse(ostemplate::TemplateKey{word, ""}.Str())->repository == word)
    return;
  throw pnl_err::Error("usage", what, word)
      .add_param("message", what + " '" + word +
                                "' must not hold \"__\" or end in \"_\": keys are split there");
}

void ReportFailed(Context& context, const char* type, const StringSet& failed, const char* done) {
  for (const std::string& repository : failed) {
    context.Report(pnl_err::Error(type, "load_repo", repository)
                       .add_param("message", str::Format("repository '%s' could not be %s; "
                                                         "var/brefirctl.log tells why",
                                                         repository, done)));
  }
}

void TellUpdated(Context& context, const char* type, const ostemplate::Repo& repositories,
                 const StringSet& failed) {
  std::vector<Record> records;
  for (const auto& [name, info] : repositories.repos) {
    records.push_back(Record()
                          .Add("key", name)
                          .Add("location", str::WithoutCredentials(info.location))
                          .Add("builtin", info.builtin)
                          .Add("updated", !failed.contains(name)));
  }
  context.bar.Clear();
  context.out.List(records);
  ReportFailed(context, type, failed, "updated");
}

}  // namespace tools
