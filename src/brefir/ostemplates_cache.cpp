// The cache of the repositories' indexes, and the lists of keys beside them.

#include <atomic>
#include <ctime>
#include <optional>
#include <tuple>

#include "brefir/cache_update.h"
#include "brefir/layout.h"
#include "brefir/ostemplates.h"
#include "pnl/date.h"
#include "pnl/err.h"
#include "pnl/fetch.h"
#include "pnl/log.h"

namespace ostemplate {
namespace {

pnl_log::Module log_module("ospnl");

constexpr std::time_t kUpdateInterval = 600;  // seconds

/// When this process began its last update; wall clock, seconds since the epoch.
std::atomic<std::time_t> last_update{0};

// --- Lists of keys

std::string KeysFile(const std::string& repository) {
  return pnl_file::ConcatPath(kCacheDir, repository, layout::kIndexKeys);
}

/// A line "MODULE<tab>NAME" for each module that a template supports, sorted.
StringSet LinesOf(const pnl_xml::Xml& index) {
  StringSet lines;
  for (const pnl_xml::XmlNode& elem : index.GetNodes(layout::kElems)) {
    OsMetaInfo info;
    Manage("", "", "", "").FillMetaInfo(elem, info);
    for (const std::string& module : info.compatible) {
      if ((module + info.name).find_first_of("\t\n") == std::string::npos)
        lines.insert(module + "\t" + info.name + "\n");
    }
  }
  return lines;
}

/// A failure is only logged: without the list, the index is only slower to search.
void WriteKeys(const std::string& repository, const pnl_xml::Xml& index) try {
  pnl_file::Tmp tmp(KeysFile(repository));
  std::string text;
  for (const std::string& line : LinesOf(index)) text += line;
  tmp.Write(text);
  tmp.CopyAttrs(GetCacheFile(repository));  // as readable as the index
  tmp.Replace(KeysFile(repository));
} catch (const pnl_err::Error& error) {
  PNL_LOG(log_module, 3, "Repository '%s' has no list of keys: %s", repository.c_str(),
          error.what());
}

/// None when it is missing, or older than the index.
std::optional<std::string> ReadKeys(const std::string& repository) {
  const auto changed = [](const std::string& path) {
    const pnl_file::Info info(path);
    const timespec time = info.Exists() ? info.Stat().st_mtim : timespec{};
    return std::tuple{info.Exists(), time.tv_sec, time.tv_nsec};
  };
  const auto index = changed(GetCacheFile(repository));
  if (!std::get<bool>(index) || changed(KeysFile(repository)) < index) return std::nullopt;
  return pnl_file::Read(KeysFile(repository));
}

// --- Indexes

/// Makes a file readable by its owner only.
void MakeSecret(const std::string& path) {
  const pnl_file::Info info(path);
  if (!info.Exists()) return;
  pnl_file::Attrs attrs = info.GetAttrs();
  attrs.mode &= pnl_file::kSecretMode;
  attrs.SafeSet(path, false);
}

void FetchIndex(const std::string& repository, const std::string& location) {
  pnl_file::MkDir(pnl_file::ConcatPath(kCacheDir, repository));
  const std::string cache_file = GetCacheFile(repository);
  const pnl_file::Tmp tmp(cache_file);
  const std::string url = str::Append(location, layout::kIndexName, "/");
  const std::string shown = str::WithoutCredentials(url);
  const pnl_rpc::FetchOptions options{.limit = pnl_xml::kMaxSize, .total_timeout = kIndexTime};
  if (!pnl_rpc::FetchFile(url, tmp, options)) throw pnl_err::Error("fetch", "file", shown);
  const pnl_xml::XmlFile index(tmp);
  index.RequireRoot(layout::kRootName, shown);
  index.GetRoot().SetProp("url", location);
  const bool secret = shown != url;
  if (secret) MakeSecret(cache_file);  // the next index gets the mode of this one
  index.Save(cache_file, true, secret ? pnl_file::kSecretMode : pnl_file::kDefaultMode);
  WriteKeys(repository, index);
}

}  // namespace

std::string GetCacheFile(const std::string& repository) {
  return pnl_file::ConcatPath(kCacheDir, repository, layout::kIndexName);
}

OstRepo::OstRepo(const std::string& builtin_location)
    : Repo(layout::kTemplateKind, builtin_location) {}

OstRepo::~OstRepo() = default;

bool OstRepo::UpdateCache(const std::string& /*dir*/, bool force, StringSet* failed) {
  const pnl_date::AccurateDateTime accurate_now = pnl_date::AccurateDateTime::Now();
  const std::time_t now = accurate_now.AsDateTime().Seconds();
  const std::time_t last = last_update;
  PNL_TRACE(log_module, "last update time: %s", pnl_date::DateTime(last).Str().c_str());
  PNL_TRACE(log_module, "now: %s", accurate_now.AsDateTime().Str().c_str());
  PNL_TRACE(log_module, "Time since last update %d seconds", static_cast<int>(now - last));
  if (!force && now - last < kUpdateInterval) {
    PNL_LOG(log_module, 1, "Skip update... ");
    return true;
  }
  last_update = now;
  return UpdateEach(*this, kCacheDir, failed, log_module, FetchIndex);
}

StringSet Manage::GetCachedKeys() {
  StringSet keys;
  const std::string own = str::Lower(name_) + "\t";
  const OstRepo repositories(builtin_location_);
  for (const auto& [repository, info] : repositories.repos) {
    if (const auto lines = ReadKeys(repository)) {
      for (std::string_view rest = *lines; !rest.empty();) {
        const std::string_view line = str::NextWord(rest, '\n');
        if (line.starts_with(own))
          keys.insert(keys.end(), layout::JoinKey(repository, line.substr(own.size())));
      }
      continue;
    }
    OsInfoMap offered;
    ReadCachedIndex(repository, offered);
    for (const auto& [key, template_info] : offered) keys.insert(key);
  }
  return keys;
}

}  // namespace ostemplate
