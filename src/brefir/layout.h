#pragma once

#include <optional>
#include <string>
#include <string_view>

/// The names and formats of files, below the working directory; for the sources of this directory
/// only. Other code gets a path from a public header: ostemplate::kCacheDir, MetaInfoFile and
/// OwnFiles, recipe::Manage::RepoDir and ParamsFile, counter::kFile, ssh_utils::RsyncLog,
/// pnl_client::kUtility.
namespace layout {

// --- Documents: elements `elem` below the root `doc`

inline constexpr const char* kRootName = "doc";
inline constexpr const char* kElems = "/doc/elem";

// --- Repositories

inline constexpr const char* kRepoConf = "etc/ostemplates.conf";  // lines "Repo KIND NAME LOCATION"
inline constexpr const char* kRepoLine = "Repo";
inline constexpr const char* kTemplateKind = "ostemplates";
inline constexpr const char* kRecipeKind = "recipes";

// --- Keys: "SOURCE__ITEM", split at the first "__"

inline constexpr std::string_view kKeySeparator = "__";

inline std::string JoinKey(std::string_view source, std::string_view item) {
  std::string key;
  key.reserve(source.size() + kKeySeparator.size() + item.size());
  return key.append(source).append(kKeySeparator).append(item);
}

/// Splits a key into source and item; returns none without "__".
template <class Key>
std::optional<Key> SplitKey(std::string_view key) {
  const std::size_t size = key.find(kKeySeparator);
  if (size == std::string_view::npos) return std::nullopt;
  return Key{std::string(key.substr(0, size)),
             std::string(key.substr(size + kKeySeparator.size()))};
}

// --- Templates

inline constexpr const char* kIndexName = "metadata.xml";  // the list of offered templates
inline constexpr const char* kIndexKeys = "keys";          // beside it, lines "MODULE<tab>NAME"
inline constexpr const char* kInstaller = "sbin/ost_install";

// In the directory of an installed template.
inline constexpr const char* kMetaInfo = "metainfo.xml";              // its description
inline constexpr const char* kMacroValues = "templatemacros.values";  // lines "NAME<tab>VALUE"
inline constexpr const char* kAutoupdate = "autoupdate";              // a marker: exists or not
inline constexpr const char* kRestrict = "restrict";

// In the directory of all installed templates.
inline constexpr const char* kRemovedDir = ".removed";  // trees that are being removed
inline constexpr const char* kSettingsLock =
    ".settings.";  // followed by a key; a name to lock, no file

// --- Logs

inline constexpr const char* kRsyncLog = "var/rsync-node-";  // followed by NODE.log

// --- Recipes, below their directory

inline constexpr const char* kRecipeRepoDir = "repo";         // REPOSITORY/FILE
inline constexpr const char* kRecipeLocalDir = "local";       // FILE
inline constexpr const char* kRecipeParams = "metadata.xml";  // elements by recipe id

}  // namespace layout
