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

/// Operating-system templates: their metadata, the catalogue of offered and installed templates,
/// the cache of the repositories' indexes, and the macros of an installed template. A macro is a
/// named value that is filled in when the template is installed on a server.
///
///     ostemplate::Manage manage("nodemgr", "5.275.0", "/srv/templates", location);
///     ostemplate::OsInfoMap templates;
///     StringSet failed;
///     if (!manage.GetTemplates(templates, &failed)) Report(failed);
///     manage.Install(manage.GetOsInfoFromCache("main__Debian-12"));
///
/// All state is on disk, below the working directory: `etc/ostemplates.conf` (the repositories),
/// `var/.oscache/<repository>/metadata.xml` (the fetched indexes), and the template directory, with
/// one subdirectory per installed template, named by its key. The subdirectories `.unpack`,
/// `.removed` and `.replaced` hold templates that are being installed or removed. Each call reads
/// the disk; objects keep no cache. Use one object from one thread at a time; different objects may
/// be used from different threads.
namespace ostemplate {

// --- Metadata

/// A panel version: number = major * 100000 + minor * 1000 + patch.
class BREFIR_API PnlVersion {
 public:
  /// Parses the leading digits and dots of `version`: "5.275.0-el7" is 5.275.0. Missing parts count
  /// as 0; a fourth part is ignored. A part that is too large adds to the part before it, by the
  /// formula above. Never fails.
  explicit PnlVersion(std::string version);

  explicit operator bool() const { return number_ != 0; }  ///< valid
  bool operator>(const PnlVersion& other) const { return number_ > other.number_; }
  bool operator<=(const PnlVersion& other) const { return number_ <= other.number_; }
  const std::string& Str() const { return text_; }  ///< the digits and dots

 private:
  std::int32_t number_;
  std::string text_;
};

/// The catalogue's data about one template, from a repository's index, an installed copy, or both.
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

/// The meaning of the fields.
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

/// Identifies a template of a repository. As text it is the repository, "__" and the OS name; it is
/// split at the first "__". The directory of an installed template may have any other name.
struct BREFIR_API TemplateKey {
  std::string repository;
  std::string name;

  /// Parses a key; returns none without "__".
  [[nodiscard]] static std::optional<TemplateKey> Parse(std::string_view text);
  [[nodiscard]] std::string Str() const;  ///< "main__CentOS-7"
};

/// A key as a display name: "main__CentOS-7" is "CentOS-7", with its repository "CentOS-7 (main)".
/// A key without "__" comes back unchanged.
[[nodiscard]] BREFIR_API std::string OsKey2OsName(std::string key, bool with_repo);

/// Whether the installation succeeded: `install_result` is "0" or "ok" (upper or lower case, white
/// space around it ignored).
[[nodiscard]] BREFIR_API bool OsInstalledGood(const OsMetaInfo& info);

/// The whole information record of an installed template: limits, descriptions, external addresses,
/// boot and installer settings. Missing elements give "", 0, false and empty maps.
struct BREFIR_API OSTInfo {
  /// Reads a `metainfo.xml`. Throws pnl_err::Error("metainfo_no_data", path) for a root without
  /// child elements, and ("metainfo_parse_error", path, reason) for a missing or malformed file and
  /// for a number that is not one.
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

/// The meaning of the fields, except those that OsMetaInfo has too.
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
/// The path of a repository's cached index: "var/.oscache/<repository>/metadata.xml".
[[nodiscard]] BREFIR_API std::string GetCacheFile(const std::string& repository);

/// The longest time for fetching one index.
inline constexpr std::chrono::minutes kIndexTime{10};

/// The repositories of templates.
class BREFIR_API OstRepo : public Repo {
 public:
  explicit OstRepo(const std::string& builtin_location);
  ~OstRepo() override;

  /// Fetches the index of every repository into the cache; one update at a time in the process.
  /// Without `force`, does nothing within 600 seconds (wall clock) after the last update that this
  /// process began. A repository that fails is added to `failed` (may be null) and keeps its old
  /// index; the others are still fetched. Returns true when all were fetched or nothing was to be
  /// done. `dir` is not used.
  ///
  /// A fetched index is checked strictly and must have the root `doc`. The attribute `url` (the
  /// repository's location) is added to the root, and the index replaces the old one by an atomic
  /// rename. The list of its keys beside it is replaced with it. Limits are pnl_xml::kMaxSize bytes
  /// and kIndexTime for each index. When the location contains a name or password, only the owner
  /// can read the cached index; the log never shows them.
  bool UpdateCache(const std::string& dir, bool force, StringSet* failed) override;
};

// --- Installed templates

/// The path of `metainfo.xml` in the template directory `tree`: the template's description and the
/// result of its installation.
[[nodiscard]] BREFIR_API std::string MetaInfoFile(const std::string& tree);
/// The names of the administrator's files in the directory of an installed template: macro values
/// and markers. An update keeps them; in an archive they are ignored.
[[nodiscard]] BREFIR_API std::vector<std::string> OwnFiles();

/// Locks the template `key` in `dir` against installation, update and removal by others. Does not
/// wait: throws pnl_err::Error("lock", "timeout", path) when somebody holds the lock.
[[nodiscard]] BREFIR_API pnl_file::Lock LockTemplate(const std::string& dir,
                                                     const std::string& key);
/// Locks the macro values and markers of an installed template against changes, and the template
/// against replacement. Hold it for each change of these files. An installer holds it from copying
/// these files until the new tree is in place. Waits up to 30 s, then throws pnl_err::Error("lock",
/// "timeout", path).
[[nodiscard]] BREFIR_API pnl_file::Lock LockSettings(const std::string& dir,
                                                     const std::string& key);

// --- Catalogue

/// The catalogue of templates as one panel module sees it.
class BREFIR_API Manage {
 public:
  /// `name` and `version` are those of the panel module. `dir` is the directory of installed
  /// templates, `builtin_location` the address of the built-in repository.
  Manage(const std::string& name, const std::string& version, const std::string& dir,
         const std::string& builtin_location);

  /// All offered templates, merged with the successfully installed ones. False when a repository
  /// could not be listed; it is added to `failed` unless that is null. The other templates are in
  /// `out` even then.
  bool GetTemplates(OsInfoMap& out, StringSet* failed);

  /// The templates of the repository `repo`, or of all when it is empty, that support this module.
  /// They are read from the cached indexes; when there is no cache directory, the indexes are
  /// fetched first. An index that cannot be read, or whose root is not `doc`, makes its repository
  /// fail. When an OS name occurs twice, the later element counts. Result and `failed` as above.
  bool GetCachedTemplates(OsInfoMap& out, const std::string& repo, StringSet* failed);

  /// The keys that GetCachedTemplates returns, read fast from lists beside the indexes. Never
  /// fetches or waits. A repository without a readable index gives no keys. Throws "file" for a
  /// list that cannot be read.
  StringSet GetCachedKeys();

  /// Merges the installed templates into `out`: the successfully installed ones, or with
  /// `failed_only` the others. An existing entry of the same key is marked as installed and gets
  /// the installed copy's state. A bad directory is skipped (log level 9).
  void GetInstalledTemplates(OsInfoMap& out, bool failed_only);

  /// One template of a repository. Throws pnl_err::Error("ostemplate", "load_repo", repository)
  /// when the index cannot be loaded, and pnl_err::Missed("ostemplate", key) when the template is
  /// not in it.
  OsMetaInfo GetOsInfoFromCache(const std::string& key);

  /// Starts the installation (or update) as a task of the kind "OST_INSTALL" with the key as its
  /// name, and returns at once. Throws pnl_err::Missed("ospnl_repo", repository) for an unknown
  /// repository, and what pnl_task::LongTask::Start throws.
  void Install(const OsMetaInfo& info);

  /// The same task, not started.
  [[nodiscard]] pnl_task::LongTask InstallTask(const TemplateKey& key) const;

  /// Removes the directory of an installed template; does nothing when it is missing. The directory
  /// is first moved to `.removed`, so that the template disappears at once; files that an error
  /// leaves there are removed by the next call. `key` is not checked: call test::PathComponent
  /// first when it comes from a user. Throws pnl_err::Access("file", dir) unless the template
  /// directory is an absolute canonical path, the same error with the whole path when that is not
  /// below the template directory (keys "", "/", ".", ".."), and ("lock", "timeout", path) while
  /// the template is being installed.
  void Remove(const std::string& key);

  /// Fills `info` from a template's element: the root of `metainfo.xml`, or one `elem` of an index.
  /// Missing children give empty texts and false flags; unknown ones are ignored. Existing values
  /// of `tags`, `compatible`, `descriptions` (added to), `supported` and `pnl_version` are kept,
  /// and those of `install_result` and `sshpublickey` when their elements are missing.
  void FillMetaInfo(const pnl_xml::XmlNode& node, OsMetaInfo& info);

  // Macros. `key` is that of an installed template; an unknown key is logged (level 4) and gives an
  // empty result.

  /// Reads the administrator's values of a template into `values`. Returns the path of their file,
  /// which need not exist; "" when the template does not exist. Throws "file" when the file cannot
  /// be read.
  std::string GetMacroCustomValues(const std::string& key, StringMap& values);

  /// Whether this panel module is in `list`, the blank-separated modules of a macro. An empty list
  /// means every module.
  bool MacroPnlCheck(std::string list);

  /// Adds the template's macros for this module. When a name is declared twice, the first
  /// declaration counts; entries that `out` already has are kept.
  void GetOsTemplateMacros(const std::string& key, TemplateMacroMap& out);
  /// Adds name and value of each macro that is asked for at installation.
  void GetOsTemplateMacros(const std::string& key, StringMap& out);

  /// Sets the administrator's value of a macro when the calling thread's transaction (pnl_job)
  /// commits; the commit takes LockSettings. An update of the template in between does not lose the
  /// change. Returns false for an unknown template. Does not check whether the macro is declared or
  /// read-only. The value must not contain a tab or line end: they end the value in the file. Every
  /// call starts from the file on disk: of two changes to one template in one transaction, only the
  /// later takes effect.
  bool SetOsTemplateMacroValue(const std::string& key, const std::string& macro,
                               const std::string& value);
  /// Removes the administrator's value, so that the default counts again; otherwise the same.
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
