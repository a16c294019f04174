// template: the catalogue of OS templates.

#include "pnl/file.h"
#include "pnl/task.h"
#include "tools/commands/catalogue.h"
#include "tools/commands/families.h"
#include "tools/commands/task/task.h"
#include "tools/frame/field_table.h"

namespace tools {
namespace {

constexpr const char* kErrorType = "ostemplate";

Record ToRecord(const std::string& key, const ostemplate::OsMetaInfo& info) {
  Record record = Record().Add("key", key);
  AddFields(record, ostemplate::kTemplateFields, info);
  return record;
}

const std::vector<Field> kTemplate =
    Fields({{"key", "repository, two underscores, name: what other commands take"}},
           FieldsOf(ostemplate::kTemplateFields));

const std::vector<Field> kInstall = [] {
  std::vector<Field> fields = TaskFields();
  for (Field& field : fields) {
    if (field.name != "id" && field.name != "state") field.when = "with --wait";
  }
  return Fields(fields, {kWouldField});
}();

/// All templates; repositories that fail are told and passed.
ostemplate::OsInfoMap AllTemplates(Context& context) {
  ostemplate::OsInfoMap templates;
  StringSet failed;
  OfferedTemplates(context).GetTemplates(templates, &failed);
  ReportFailed(context, kErrorType, failed, "listed");
  return templates;
}

int List(Context& context) {
  const opts::Values& values = context.values;
  ostemplate::OsInfoMap templates;
  if (values.Has("failed")) {
    Catalogue(context).GetInstalledTemplates(templates, true);
  } else {
    templates = AllTemplates(context);
  }
  std::vector<Record> records;
  for (const auto& [key, info] : templates) {
    if (values.Has("installed") && !info.installed) continue;
    if (values.Has("repo") && info.repo != values.Str("repo")) continue;
    if (values.Has("tag") && !info.tags.contains(values.Str("tag"))) continue;
    records.push_back(ToRecord(key, info));
  }
  context.out.List(records,
                   values.Has("failed")
                       ? std::vector<std::string>{"key", "install_result_type", "install_result"}
                       : std::vector<std::string>{"key", "type", "tags", "installed",
                                                  "update_available", "utcmtime"});
  return kDone;
}

int Show(Context& context) {
  const std::string key = Key(context);
  ostemplate::OsInfoMap templates = AllTemplates(context);
  Catalogue(context).GetInstalledTemplates(templates, true);
  const auto found = templates.find(key);
  if (found == templates.end()) {
    throw pnl_err::Missed("template", key)
        .add_param("message",
                   "no template '" + key + "'; 'brefirctl template list' shows what there is");
  }
  Record record = ToRecord(key, found->second);
  const std::string metainfo =
      ostemplate::MetaInfoFile(pnl_file::ConcatPath(TemplateDir(context), key));
  if (pnl_file::Exists(metainfo))
    AddFields(record, ostemplate::kInstallationFields, ostemplate::OSTInfo(metainfo));
  context.out.One(record);
  return kDone;
}

int Update(Context& context) {
  StringSet failed;
  ostemplate::OstRepo repositories = TemplateRepositories(context);
  repositories.UpdateCache(TemplateDir(context), true, &failed);
  TellUpdated(context, kErrorType, repositories, failed);
  return kDone;
}

int Install(Context& context) {
  const std::string key = Key(context);
  ostemplate::Manage catalogue = OfferedTemplates(context);
  const ostemplate::OsMetaInfo info = catalogue.GetOsInfoFromCache(key);
  RequirePathComponent(info.name, "osname");
  const pnl_task::LongTask task = catalogue.InstallTask({info.repo, info.name});
  if (context.values.Has("dry-run")) return Would(context, task.Command());
  catalogue.Install(info);
  if (context.values.Has("wait")) return FollowTask(context, task.Id());
  context.out.One(Record().Add("id", task.Id()).Add("state", "running"));
  return kDone;
}

/// What goes wrong is told in the words of whoever wants to be rid of a template.
void RemoveTemplate(Context& context, const std::string& key, const std::string& path) try {
  Catalogue(context).Remove(key);
} catch (pnl_err::Error& error) {
  const std::string reason = ErrorText(error, Format::kTable);
  if (pnl_file::IsTaken(error)) {
    const auto parts = ostemplate::TemplateKey::Parse(key);
    const std::string hint = parts ? "; 'brefirctl task wait " +
                                         Catalogue(context).InstallTask(*parts).Id() +
                                         "' follows an installation to its end"
                                   : "";
    error.add_param("message", "template '" + key + "' is being installed or removed" + hint);
  } else if (!pnl_file::Exists(path)) {
    error.add_param("message", "template '" + key + "' is no longer installed, but its files are " +
                                   "not all gone: " + reason +
                                   "; the next 'brefirctl template remove' tries again");
  }
  throw error;
}

int Remove(Context& context) {
  const std::string key = InstalledKey(context);
  const std::string path = pnl_file::ConcatPath(TemplateDir(context), key);
  if (!context.values.Has("dry-run")) RemoveTemplate(context, key, path);
  context.out.One(
      Record().Add("key", key).Add("removed", !context.values.Has("dry-run")).Add("path", path));
  return kDone;
}

int Mark(Context& context) {
  const std::string key = InstalledKey(context);
  const std::string& marker = context.values.Str("MARKER");
  const bool on = context.values.Str("STATE") == "on";
  const std::string path = pnl_file::ConcatPath(TemplateDir(context), key, marker);
  const pnl_file::Lock lock = ostemplate::LockSettings(TemplateDir(context), key);
  if (!on) {
    pnl_file::RemoveFile(path);
  } else if (!pnl_file::Exists(path)) {
    pnl_file::Write(path, "");
  }
  context.out.One(Record().Add("key", key).Add(marker, on));
  return kDone;
}

void DescribeFamily(opts::Args& args) {
  args.Details(
      "Offered are the templates of the indexes as last fetched, for the panel module and version "
      "of the settings. A KEY is the repository, two underscores and the template's name. "
      "Installations run as tasks of their own, which 'brefirctl task' shows.");
  AddCatalogueOptions(args);
}

void DescribeList(opts::Args& args) {
  args.Option("installed").Help("only installed templates");
  args.Option("failed").Help("only those whose installation failed").Excludes("installed");
  args.Option("repo").Value("NAME").Help("only those of one repository").Completes("repositories");
  args.Option("tag").Value("TAG").Help("only those with this tag");
}

void DescribeInstall(opts::Args& args) {
  AddKey(args);
  args.Option("wait").Help("follow the installation to its end");
  args.Option("dry-run").Help("print the command that would run").Excludes("wait");
}

void DescribeRemove(opts::Args& args) {
  AddInstalledKey(args);
  args.Option("dry-run").Help("tell what would be removed");
}

void DescribeMark(opts::Args& args) {
  AddInstalledKey(args);
  args.Positional("MARKER")
      .OneOf({"autoupdate", "restrict"})
      .Help("to be updated automatically, or with restricted access");
  args.Positional("STATE").OneOf({"on", "off"}).Help("set or remove the marker");
}

}  // namespace

Family TemplateFamily() {
  return {
      .name = "template",
      .summary = "Operating-system templates: what repositories offer and what is installed.",
      .describe = DescribeFamily,
      .verbs =
          {
              {
                  .name = "list",
                  .summary = "Lists offered and installed templates.",
                  .describe = DescribeList,
                  .run = List,
                  .examples = {"", "--installed -o json"},
                  .fields = kTemplate,
              },
              {
                  .name = "show",
                  .summary = "Shows all that is known of one template.",
                  .describe = AddKey,
                  .run = Show,
                  .examples = {"main__Debian-12"},
                  .fields = Fields(
                      kTemplate, FieldsOf(ostemplate::kInstallationFields, "when it is installed")),
              },
              {
                  .name = "update",
                  .summary = "Fetches the index of every repository.",
                  .run = Update,
                  .examples = {""},
                  .fields = kUpdatedFields,
              },
              {
                  .name = "install",
                  .summary = "Installs a template, or brings it up to date, as a task.",
                  .describe = DescribeInstall,
                  .run = Install,
                  .examples = {"main__Debian-12 --wait"},
                  .fields = kInstall,
              },
              {
                  .name = "remove",
                  .summary = "Removes an installed template.",
                  .describe = DescribeRemove,
                  .run = Remove,
                  .examples = {"main__Debian-12 --dry-run"},
                  .fields = {{"key", "the template"},
                             {"removed", "false with --dry-run"},
                             {"path", "its directory"}},
              },
              {
                  .name = "mark",
                  .summary = "Sets or removes a marker of an installed template.",
                  .describe = DescribeMark,
                  .run = Mark,
                  .examples = {"main__Debian-12 autoupdate on"},
                  .fields = {{"key", "the template"},
                             {"autoupdate", "whether it is set now", "when MARKER is this one"},
                             {"restrict", "whether it is set now", "when MARKER is this one"}},
              },
          },
      .files = {{"etc/ostemplates.conf", "repositories of templates"},
                {"templates/.removed",
                 "what a removal that failed has left; the next one removes it"},
                {"var/.oscache", "their indexes, as last fetched"},
                {"templates",
                 "installed templates, unless template_dir of the settings says otherwise"}},
      .see_also = {"ostemplates.conf(5)", "brefir.conf(5)", "ost_install(8)"},
  };
}

}  // namespace tools
