// template: the catalogue of OS templates.

#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/task.h"
#include "tools/catalogue.h"
#include "tools/commands.h"

namespace tools {
namespace {

constexpr const char* kErrorType = "ostemplate";

Record ToRecord(const std::string& key, const ostemplate::OsMetaInfo& info) {
  return Record()
      .Add("key", key)
      .Add("name", info.name)
      .Add("repo", info.repo)
      .Add("type", info.type)
      .Add("compatible", info.compatible)
      .Add("tags", info.tags)
      .Add("utcmtime", info.utcmtime)
      .Add("date", info.date)
      .Add("descriptions", info.descriptions)
      .Add("filename", info.filename)
      .Add("installed", info.installed)
      .Add("update_available", info.update_available)
      .Add("supported", info.supported)
      .Add("spare_flag", info.spare_flag)
      .Add("autoupdate", info.autoupdate)
      .Add("restrict", info.restrict)
      .Add("sshpublickey", info.sshpublickey)
      .Add("sshpublickey_base64", info.sshpublickey_base64)
      .Add("macro", info.macro)
      .Add("loaderefi64", info.loaderefi64)
      .Add("pnl_version", info.pnl_version)
      .Add("install_result", info.install_result)
      .Add("install_result_type", info.install_result_type)
      .Add("chpasswd_method", info.chpasswd_method)
      .Add("hddraid", info.hddraid);
}

const std::vector<Field> kTemplate = {
    {"key", "repository, two underscores, name: what other commands take"},
    {"name", "name of the operating system"},
    {"repo", "repository; empty when only an installed copy is known"},
    {"type", "template type"},
    {"compatible", "panel modules that it is for, in lower case"},
    {"tags", "its tags"},
    {"utcmtime", "when the repository changed it: YYYY-MM-DD HH:MM:SS"},
    {"date", "of the template, or of its installed copy"},
    {"descriptions", "texts by language code"},
    {"filename", "archive, below the repository's address"},
    {"installed", "whether a copy is installed and finished well"},
    {"update_available", "whether that copy is older than the repository's"},
    {"supported", "whether it is for this panel module"},
    {"spare_flag", "always true"},
    {"autoupdate", "marker of the installed copy: to be updated automatically"},
    {"restrict", "marker of the installed copy: access is restricted"},
    {"sshpublickey", "whether it accepts an SSH public key"},
    {"sshpublickey_base64", "whether that key is to be base64-encoded"},
    {"macro", "whether it declares macros"},
    {"loaderefi64", "whether it has a 64-bit EFI loader"},
    {"pnl_version", "least version of the panel module"},
    {"install_result", "what the installation left: ok, or why it failed"},
    {"install_result_type", "kind of that failure"},
    {"chpasswd_method", "how the root password is changed"},
    {"hddraid", "disk RAID setting"},
};

const std::vector<Field> kInstall = [] {
  std::vector<Field> fields = TaskFields();
  for (Field& field : fields) {
    if (field.name != "id" && field.name != "state") field.when = "with --wait";
  }
  return Fields(fields, {kWouldField});
}();

constexpr const char* kWhenInstalled = "when it is installed";

/// What only an installed copy tells.
const std::vector<Field> kInstalled = {
    {"image", "boot and installer settings as the template states them", kWhenInstalled},
    {"kernel", "", kWhenInstalled},
    {"initrd", "", kWhenInstalled},
    {"kernelcommand", "", kWhenInstalled},
    {"installcfg", "", kWhenInstalled},
    {"installdrive", "", kWhenInstalled},
    {"nfsshare", "", kWhenInstalled},
    {"hddimage", "", kWhenInstalled},
    {"sharedir", "", kWhenInstalled},
    {"illegal_password_characters", "", kWhenInstalled},
    {"up_mem_on_install", "", kWhenInstalled},
    {"loader", "", kWhenInstalled},
    {"pxelinuxcfg", "", kWhenInstalled},
    {"samba", "", kWhenInstalled},
    {"tempipv4", "", kWhenInstalled},
    {"virtiodisk", "", kWhenInstalled},
    {"virtionet", "", kWhenInstalled},
    {"rebootcount", "reboots during the installation of a server", kWhenInstalled},
    {"osinstalltimeout", "seconds that an installation may take", kWhenInstalled},
    {"cfgrequesttimeout", "seconds until a server asks for its configuration", kWhenInstalled},
    {"limits", "limits of an installation, by name", kWhenInstalled},
    {"externals", "addresses that an installation needs", kWhenInstalled},
};

void AddInstalledInfo(Record& record, const ostemplate::OSTInfo& info) {
  record.Add("image", info.image)
      .Add("kernel", info.kernel)
      .Add("initrd", info.initrd)
      .Add("kernelcommand", info.kernelcommand)
      .Add("installcfg", info.installcfg)
      .Add("installdrive", info.installdrive)
      .Add("nfsshare", info.nfsshare)
      .Add("hddimage", info.hddimage)
      .Add("sharedir", info.sharedir)
      .Add("illegal_password_characters", info.illegal_password_characters)
      .Add("up_mem_on_install", info.up_mem_on_install)
      .Add("loader", info.loader)
      .Add("pxelinuxcfg", info.pxelinuxcfg)
      .Add("samba", info.samba)
      .Add("rebootcount", info.rebootcount)
      .Add("tempipv4", info.tempipv4)
      .Add("virtiodisk", info.virtiodisk)
      .Add("virtionet", info.virtionet)
      .Add("osinstalltimeout", info.osinstalltimeout)
      .Add("cfgrequesttimeout", info.cfgrequesttimeout)
      .Add("limits", info.limits)
      .Add("externals", info.externals);
}

/// All templates; repositories that fail are told and passed.
ostemplate::OsInfoMap AllTemplates(Context& context) {
  (void)TemplateRepositories(context);
  ostemplate::OsInfoMap templates;
  StringSet failed;
  Catalogue(context).GetTemplates(templates, &failed);
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
  const std::string metainfo = pnl_file::ConcatPath(TemplateDir(context), key, "metainfo.xml");
  if (pnl_file::Exists(metainfo)) AddInstalledInfo(record, ostemplate::OSTInfo(metainfo));
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

/// The task that installs a template, as the library names it.
pnl_task::LongTask InstallTask(const std::string& key) {
  return {"sbin/ost_install", key, "OST_INSTALL"};
}

/// The installer's command line, as the task will have it.
std::string InstallCommand(const Context& context, const std::string& key,
                           const std::string& repository) {
  using pnl_proc::Escape;
  const ostemplate::PnlVersion version(context.Setting("version", "module_version"));
  return "sbin/ost_install -m " + Escape(context.Setting("module", "module_name")) + " -v " +
         Escape(version.Str()) + " -i " + Escape(key) + " -t " + Escape(TemplateDir(context)) +
         " -d " + Escape(ostemplate::GetCacheFile(repository));
}

int Install(Context& context) {
  const std::string key = Key(context);
  (void)TemplateRepositories(context);
  ostemplate::Manage catalogue = Catalogue(context);
  const ostemplate::OsMetaInfo info = catalogue.GetOsInfoFromCache(key);
  RequirePathComponent(info.name, "osname");
  if (context.values.Has("dry-run")) return Would(context, InstallCommand(context, key, info.repo));
  catalogue.Install(info);
  const std::string task = InstallTask(key).Id();
  if (context.values.Has("wait")) return FollowTask(context, task);
  context.out.One(Record().Add("id", task).Add("state", "running"));
  return kDone;
}

/// What goes wrong is told in the words of whoever wants to be rid of a template.
void RemoveTemplate(Context& context, const std::string& key, const std::string& path) try {
  Catalogue(context).Remove(key);
} catch (pnl_err::Error& error) {
  const std::string reason = ErrorText(error, Format::kTable);
  if (pnl_file::IsTaken(error)) {
    error.add_param("message", "template '" + key + "' is being installed or removed; 'brefirctl " +
                                   "task wait " + InstallTask(key).Id() +
                                   "' follows an installation to its end");
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
      "template",
      "Operating-system templates: what repositories offer and what is installed.",
      DescribeFamily,
      {{"list",
        "Lists offered and installed templates.",
        DescribeList,
        List,
        {"", "--installed -o json"},
        kTemplate},
       {"show",
        "Shows all that is known of one template.",
        AddKey,
        Show,
        {"main__Debian-12"},
        Fields(kTemplate, kInstalled)},
       {"update", "Fetches the index of every repository.", nullptr, Update, {""}, kUpdatedFields},
       {"install",
        "Installs a template, or brings it up to date, as a task.",
        DescribeInstall,
        Install,
        {"main__Debian-12 --wait"},
        kInstall},
       {"remove",
        "Removes an installed template.",
        DescribeRemove,
        Remove,
        {"main__Debian-12 --dry-run"},
        {{"key", "the template"}, {"removed", "false with --dry-run"}, {"path", "its directory"}}},
       {"mark",
        "Sets or removes a marker of an installed template.",
        DescribeMark,
        Mark,
        {"main__Debian-12 autoupdate on"},
        {{"key", "the template"},
         {"autoupdate", "whether it is set now", "when MARKER is this one"},
         {"restrict", "whether it is set now", "when MARKER is this one"}}}},
      {{"etc/ostemplates.conf", "repositories of templates"},
       {"templates/.removed", "what a removal that failed has left; the next one removes it"},
       {"var/.oscache", "their indexes, as last fetched"},
       {"templates", "installed templates, unless template_dir of the settings says otherwise"}},
      {"ostemplates.conf(5)", "brefir.conf(5)", "ost_install(8)"}};
}

}  // namespace tools
