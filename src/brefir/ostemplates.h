#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brefir/export.h"
#include "brefir/fields.h"
#include "brefir/ostemplates_common.h"
#include "pnl/file.h"
#include "pnl/str.h"
#include "pnl/task.h"
#include "pnl/xml.h"

/// Operating-system templates: their metadata, the catalogue of offered and installed ones, the
/// cache of the repositories' indexes, and the macros of an installed template.
///
///     ostemplate::Manage manage("nodemgr", "5.275.0", "/srv/templates", location);
///     ostemplate::OsInfoMap templates;
///     StringSet failed;
///     if (!manage.GetTemplates(templates, &failed)) Report(failed);
///     manage.Install(manage.GetOsInfoFromCache("main__Debian-12"));
///
/// State lives on disk, below the working directory: `etc/ostemplates.conf` (repositories),
/// `var/.oscache/<repository>/metadata.xml` (indexes as fetched), and the template directory with
/// one subdirectory per installed template, named by its key; `.unpack`, `.removed` and `.replaced`
/// beside them hold what is on its way. Objects hold no cache; each call reads the disk. One object
/// belongs to one thread at a time, different objects may be used from different threads.
namespace ostemplate {

// --- Metadata

/// A panel version: number = major * 100000 + minor * 1000 + patch.
class BREFIR_API PnlVersion {
 public:
  /// Parses the leading digits and dots of `version`: "5.275.0-el7" is 5.275.0. Missing parts count
  /// 0, a fourth part is ignored; large parts spill into the next by the formula. Never fails.
  explicit PnlVersion(std::string version);

  explicit operator bool() const { return number_ != 0; }  ///< valid
  bool operator>(const PnlVersion& other) const { return number_ > other.number_; }
  bool operator<=(const PnlVersion& other) const { return number_ <= other.number_; }
  const std::string& Str() const { return text_; }  ///< the digits and dots

 private:
  std::int32_t number_;
  std::string text_;
};

/// What the catalogue knows of one template, from a repository's index, an installed copy, or both.
struct BREFIR_API OsMetaInfo {
  OsMetaInfo();
  OsMetaInfo(const OsMetaInfo&);
  OsMetaInfo(OsMetaInfo&&) noexcept;
  OsMetaInfo& operator=(const OsMetaInfo&);
  OsMetaInfo& operator=(OsMetaInfo&&) noexcept;
  ~OsMetaInfo();

  /// The description in `lang`, else the one in "en", else "".
  std::string GetDesc(const std::string& lang) const;

  std::string name;
  std::string repo;
  std::string type;
  StringSet compatible;
  StringSet tags;
  std::string utcmtime;
  std::string date;
  StringMap descriptions;
  std::string filename;
  bool installed = false;
  bool update_available = false;
  bool supported = false;
  bool spare_flag = true;
  bool autoupdate = false;
  bool restrict = false;
  bool sshpublickey = false;
  bool sshpublickey_base64 = false;
  bool macro = false;
  bool loaderefi64 = false;
  std::string pnl_version;     ///< as PnlVersion::Str()
  std::string install_result;  ///< see OsInstalledGood
  std::string install_result_type;
  std::string chpasswd_method;
  std::string hddraid;
};

/// What the fields mean.
inline constexpr auto kTemplateFields = [] {
  using utils::Field;
  using R = OsMetaInfo;
  return std::tuple{
      Field{"name", "name of the operating system", &R::name},
      Field{"repo", "repository; empty when only an installed copy is known", &R::repo},
      Field{"type", "template type", &R::type},
      Field{"compatible", "panel modules that it is for, in lower case", &R::compatible},
      Field{"tags", "its tags", &R::tags},
      Field{"utcmtime", "when the repository changed it", &R::utcmtime},
      Field{"date", "of the template, or of its installed copy", &R::date},
      Field{"descriptions", "texts by language code", &R::descriptions},
      Field{"filename", "archive, below the repository's address", &R::filename},
      Field{"installed", "whether a copy is installed and finished well", &R::installed},
      Field{"update_available", "whether that copy is older than the repository's",
            &R::update_available},
      Field{"supported", "whether it is for this panel module", &R::supported},
      Field{"spare_flag", "always true", &R::spare_flag},
      Field{"autoupdate", "marker of the installed copy: to be updated automatically",
            &R::autoupdate},
      Field{"restrict", "marker of the installed copy: access is restricted", &R::restrict},
      Field{"sshpublickey", "whether it accepts an SSH public key", &R::sshpublickey},
      Field{"sshpublickey_base64", "whether that key is to be base64-encoded",
            &R::sshpublickey_base64},
      Field{"macro", "whether it declares macros", &R::macro},
      Field{"loaderefi64", "whether it has a 64-bit EFI loader", &R::loaderefi64},
      Field{"pnl_version", "least version of the panel module", &R::pnl_version},
      Field{"install_result", "what the installation left: ok, or why it failed",
            &R::install_result},
      Field{"install_result_type", "kind of that failure", &R::install_result_type},
      Field{"chpasswd_method", "how the root password is changed", &R::chpasswd_method},
      Field{"hddraid", "disk RAID setting", &R::hddraid},
  };
}();

/// A macro of an installed template.
struct BREFIR_API TemplateMacroInfo {
  TemplateMacroInfo();
  TemplateMacroInfo(const TemplateMacroInfo&);
  TemplateMacroInfo(TemplateMacroInfo&&) noexcept;
  TemplateMacroInfo& operator=(const TemplateMacroInfo&);
  TemplateMacroInfo& operator=(TemplateMacroInfo&&) noexcept;
  ~TemplateMacroInfo();

  std::string value;
  bool readonly = false;
  bool oninstall = false;
  bool custom = false;
  pnl_xml::Xml xml;
};

inline constexpr auto kMacroFields = [] {
  using utils::Field;
  using R = TemplateMacroInfo;
  return std::tuple{
      Field{"value", "the administrator's value, else the default", &R::value},
      Field{"readonly", "whether it must not be changed", &R::readonly},
      Field{"oninstall", "whether the panel asks for it when it installs a server", &R::oninstall},
      Field{"custom", "whether the value is the administrator's", &R::custom},
      Field{"xml", "what else the template declares of it, as an XML document", &R::xml},
  };
}();

using OsInfoMap = std::map<std::string, OsMetaInfo>;                ///< by template key
using TemplateMacroMap = std::map<std::string, TemplateMacroInfo>;  ///< by macro name

/// What names a template of a repository: in texts the repository, "__" and the OS name, split at
/// the first "__". The directory of an installed template may have any other name.
struct BREFIR_API TemplateKey {
  std::string repository;
  std::string name;

  /// The key in `text`; none where there is no "__".
  [[nodiscard]] static std::optional<TemplateKey> Parse(std::string_view text);
  [[nodiscard]] std::string Str() const;  ///< "main__CentOS-7"
};

/// A key as a display name: "main__CentOS-7" is "CentOS-7", with its repository "CentOS-7 (main)".
/// A key without "__" comes back unchanged.
[[nodiscard]] BREFIR_API std::string OsKey2OsName(std::string key, bool with_repo);

/// Whether the installation finished well: `install_result` is "0" or "ok" in any case, white space
/// around it ignored.
[[nodiscard]] BREFIR_API bool OsInstalledGood(const OsMetaInfo& info);

/// The whole information record of an installed template: limits, descriptions, external addresses,
/// boot and installer settings. Absent elements leave "" , 0, false and empty maps.
struct BREFIR_API OSTInfo {
  /// Reads a `metainfo.xml`. Throws pnl_err::Error("metainfo_no_data", path) for a root without
  /// child elements, and ("metainfo_parse_error", path, reason) for everything that cannot be read:
  /// a missing or malformed file, an integer that is none.
  explicit OSTInfo(const std::string& path);

  std::string osname;
  StringSet tags;
  StringMap descriptions;
  std::string chpasswd_method;
  bool sshpublickey = false;
  bool sshpublickey_base64 = false;

  // Boot and installer settings, as the template states them.
  std::string image;
  std::string kernel;
  std::string initrd;
  std::string kernelcommand;
  std::string installcfg;
  std::string installdrive;
  std::string nfsshare;
  std::string hddimage;
  std::string sharedir;
  std::string illegal_password_characters;
  std::string up_mem_on_install;
  std::string loader;
  std::string pxelinuxcfg;
  std::string samba;
  int rebootcount = 0;
  bool tempipv4 = false;
  bool virtiodisk = false;
  bool virtionet = false;

  int osinstalltimeout = 0;
  int cfgrequesttimeout = 0;
  StringMap limits;
  std::vector<std::string> externals;
};

/// What the fields mean, but for those that OsMetaInfo has too.
inline constexpr auto kInstallationFields = [] {
  using utils::Field;
  using R = OSTInfo;
  return std::tuple{
      Field{"image", "boot and installer settings as the template states them", &R::image},
      Field{"kernel", "", &R::kernel},
      Field{"initrd", "", &R::initrd},
      Field{"kernelcommand", "", &R::kernelcommand},
      Field{"installcfg", "", &R::installcfg},
      Field{"installdrive", "", &R::installdrive},
      Field{"nfsshare", "", &R::nfsshare},
      Field{"hddimage", "", &R::hddimage},
      Field{"sharedir", "", &R::sharedir},
      Field{"illegal_password_characters", "", &R::illegal_password_characters},
      Field{"up_mem_on_install", "", &R::up_mem_on_install},
      Field{"loader", "", &R::loader},
      Field{"pxelinuxcfg", "", &R::pxelinuxcfg},
      Field{"samba", "", &R::samba},
      Field{"tempipv4", "", &R::tempipv4},
      Field{"virtiodisk", "", &R::virtiodisk},
      Field{"virtionet", "", &R::virtionet},
      Field{"rebootcount", "reboots during the installation of a server", &R::rebootcount},
      Field{"osinstalltimeout", "seconds that an installation may take", &R::osinstalltimeout},
      Field{"cfgrequesttimeout", "seconds until a server asks for its configuration",
            &R::cfgrequesttimeout},
      Field{"limits", "limits of an installation, by name", &R::limits},
      Field{"externals", "addresses that an installation needs", &R::externals},
  };
}();

// --- Repository cache

inline constexpr const char* kCacheDir = "var/.oscache";  ///< below the working directory
/// The cached index of a repository: "var/.oscache/<repository>/metadata.xml".
[[nodiscard]] BREFIR_API std::string GetCacheFile(const std::string& repository);

/// How long fetching an index may take.
inline constexpr std::chrono::minutes kIndexTime{10};

/// The repositories of templates.
class BREFIR_API OstRepo : public Repo {
 public:
  explicit OstRepo(const std::string& builtin_location);
  ~OstRepo() override;

  /// Fetches the index of every repository into the cache; one at a time in the process. Unless
  /// `force`, nothing is done within 600 seconds (wall clock) of the last update that this process
  /// began. A repository that fails is added to `failed` (may be null) and keeps its old index; the
  /// others go on. True when all were fetched or nothing was to be done. `dir` is not used. A
  /// fetched index is checked strictly, must have the root `doc`, gets the attribute `url` (the
  /// repository's location) on it, and replaces the old one at once. One may have
  /// pnl_xml::kMaxSize bytes and take kIndexTime. A cached index is for its owner alone when the
  /// location holds a name or password, which no log tells. The list of its keys, beside it, is
  /// replaced with it.
  bool UpdateCache(const std::string& dir, bool force, StringSet* failed) override;
};

// --- Installed templates

/// The `metainfo.xml` of the template in the directory `tree`: what it is, and what came of its
/// installation.
[[nodiscard]] BREFIR_API std::string MetaInfoFile(const std::string& tree);
/// The names of what the administrator makes of an installed template, in its directory: the file
/// of macro values and the markers. An update keeps them, an archive never brings them.
[[nodiscard]] BREFIR_API std::vector<std::string> OwnFiles();

/// The installed template `key` in `dir` is not installed, updated or removed by anybody else while
/// this is held. Not waited for: pnl_err::Error("lock", "timeout", path) when somebody is at it.
[[nodiscard]] BREFIR_API pnl_file::Lock LockTemplate(const std::string& dir,
                                                     const std::string& key);
/// What the administrator makes of an installed template (its macro values, its markers) is changed
/// by nobody else while this is held, nor is the template replaced. Whoever changes it has this
/// lock for that moment; an installer has it from reading the last of it to having the new tree in
/// place. Waited for up to 30 s: pnl_err::Error("lock", "timeout", path).
[[nodiscard]] BREFIR_API pnl_file::Lock LockSettings(const std::string& dir,
                                                     const std::string& key);

// --- Catalogue

/// The catalogue of templates as one panel module sees it.
class BREFIR_API Manage {
 public:
  /// `name` and `version` are the module's, `dir` is the directory of installed templates,
  /// `builtin_location` that of the built-in repository.
  Manage(const std::string& name, const std::string& version, const std::string& dir,
         const std::string& builtin_location);

  /// All offered templates, merged with the installed ones that finished well. False when a
  /// repository could not be listed (it is added to `failed` unless that is null); the rest is
  /// there all the same.
  bool GetTemplates(OsInfoMap& out, StringSet* failed);

  /// The templates that support this module of one repository, or of all (`repo` empty), from the
  /// cached indexes; without any cache directory they are fetched first. An index that cannot be
  /// read, or whose root is not `doc`, fails. Later elements of one OS name win. Result and
  /// `failed` as above.
  bool GetCachedTemplates(OsInfoMap& out, const std::string& repo, StringSet* failed);

  /// The keys of what GetCachedTemplates gives, from lists that are kept beside the indexes: fast.
  /// Nothing is fetched or waited for; of a repository without an index that can be read there are
  /// none. Throws "file" for a list that cannot be read.
  StringSet GetCachedKeys();

  /// Merges the installed templates into `out`: those that finished well, or those that did not. An
  /// entry of the same key is marked installed and takes the installed copy's state. A bad
  /// directory is skipped (log level 9).
  void GetInstalledTemplates(OsInfoMap& out, bool failed_only);

  /// One template of a repository. Throws pnl_err::Error("ostemplate", "load_repo", repository)
  /// when its index cannot be loaded, pnl_err::Missed("ostemplate", key) when it is not offered.
  OsMetaInfo GetOsInfoFromCache(const std::string& key);

  /// Starts the installation (or update) as the long task "OST_INSTALL" named by the key, and
  /// returns. Throws pnl_err::Missed("ospnl_repo", repository) for an unknown repository, and what
  /// pnl_task::LongTask::Start throws.
  void Install(const OsMetaInfo& info);

  /// That task, not started.
  [[nodiscard]] pnl_task::LongTask InstallTask(const TemplateKey& key) const;

  /// Removes the directory of an installed template; a missing one is fine. It is no template any
  /// more from the first moment on: it is moved to `.removed`, and what an error leaves there goes
  /// with the next call. `key` is used as it is given: callers that take it from people check it
  /// with test::PathComponent. Throws pnl_err::Access("file", dir) unless the template directory is
  /// an absolute canonical path, the same with the whole path where it does not lead to something
  /// below that (keys "", "/", ".", ".."), and ("lock", "timeout", path) while the template is
  /// being installed.
  void Remove(const std::string& key);

  /// Fills `info` from a template's element: the root of `metainfo.xml`, or one `elem` of an index.
  /// Missing children give empty texts and false flags; unknown ones are ignored. What is already
  /// in `info` is kept for: `tags`, `compatible`, `descriptions` (added to), `supported`,
  /// `pnl_version`, and for `install_result` and `sshpublickey` when their elements are missing.
  void FillMetaInfo(const pnl_xml::XmlNode& node, OsMetaInfo& info);

  // Macros. `key` names an installed template; an unknown one is logged at level 4 and gives
  // nothing.

  /// The administrator's values of a template; the path of their file, also when it does not exist
  /// yet; "" when the template does not. Throws the read error of an unreadable file.
  std::string GetMacroCustomValues(const std::string& key, StringMap& values);

  /// Whether a macro with this blank-separated list of modules is there for this one; an empty list
  /// means every module.
  bool MacroPnlCheck(std::string list);

  /// Adds the template's macros for this module; the first declaration of a name wins, and so do
  /// entries that `out` already has.
  void GetOsTemplateMacros(const std::string& key, TemplateMacroMap& out);
  /// Sets name to value for the macros that are asked for at installation.
  void GetOsTemplateMacros(const std::string& key, StringMap& out);

  /// Sets the administrator's value of a macro when the calling thread's transaction (pnl_job)
  /// commits, which takes LockSettings; an update of the template in between keeps the change.
  /// False for an unknown template. Whether the macro is declared or read-only is not looked at. A
  /// tab or line end in the value splits it when it is read back. Every call starts from the file
  /// as it is on disk: of two changes to one template in one transaction the later wins whole.
  bool SetOsTemplateMacroValue(const std::string& key, const std::string& macro,
                               const std::string& value);
  /// The same, back to the default.
  void ResetOsTemplateMacroValue(const std::string& key, const std::string& macro);

 private:
  std::string TemplatePath(const std::string& key) const;
  bool ReadCachedIndex(const std::string& repository, OsInfoMap& out);
  void ReadInstalled(const std::string& path, const std::string& key, bool failed_only,
                     OsInfoMap& out);
  void FillSupport(const pnl_xml::XmlNode& support, OsMetaInfo& info) const;
  void AddMacro(const pnl_xml::XmlNode& elem, const StringMap& custom, TemplateMacroMap& out);
  bool ChangeMacroValues(const std::string& key, const std::function<void(StringMap&)>& change);

  std::string name_;
  PnlVersion version_;
  std::string dir_;
  std::string builtin_location_;
};

}  // namespace ostemplate
