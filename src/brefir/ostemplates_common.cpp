#include "brefir/ostemplates_common.h"

#include <algorithm>
#include <memory>

#include "brefir/layout.h"
#include "pnl/file.h"
#include "pnl/log.h"

namespace ostemplate {
namespace {

pnl_log::Module log_module("ospnl");

constexpr const char* kConfName = "OstemplatesConf";
constexpr const char* kRepoDataSet = "RepoDS";
constexpr std::size_t kCacheCapacity = 20;

/// Never destroyed: destructors of static objects may still list repositories.
ConfCache& MakeCache() {
  const pnl_file::safe::Folder folder;
  static const OstemplatesConf conf;  // its constructor registers the kind
  static auto* const cache = new ConfCache(kCacheCapacity);
  return *cache;
}

ConfCache& Cache() {
  const pnl_thread::SafeSection section(BaseCachedConfigEvent::GetInitLock());
  static ConfCache& cache = MakeCache();
  return cache;
}

std::shared_ptr<RepoDS> RepoLines() {
  return std::static_pointer_cast<RepoDS>(GetConf().Get(kRepoDataSet));
}

}  // namespace

std::string RepoDS::LinePrefix() const {
  return layout::kRepoLine;
}

std::string RepoDS::KeyVal() const {
  return prefix.Str() + name.Str();
}

OstemplatesConf::OstemplatesConf() : PnlCachedConfig(kConfName) {
  pnl_token::Params rules;
  rules.Add(pnl_token::CharToken{pnl_token::Role::kSeparator, "\t\r "})
      .Add(pnl_token::CharToken{pnl_token::Role::kLineEnd, "\n"})
      .Add(pnl_token::Comment{'#', '\n'});
  PnlConfCache::Register(kConfName, rules);
  AddDataSet<RepoDS>(kRepoDataSet);
}

ConfRef GetConf() {
  return Cache().Config(kConfName, layout::kRepoConf, true);
}

Repo::RepoInfo::RepoInfo(const std::string& repo_location, bool is_builtin)
    : location(repo_location), builtin(is_builtin) {}

Repo::Repo(const std::string& repo_prefix, const std::string& builtin_location)
    : prefix(repo_prefix) {
  repos[kBuiltinRepo] = RepoInfo(builtin_location, true);
  const auto lines = RepoLines();
  for (lines->First(); !lines->Eof(); lines->Next()) {
    if (lines->prefix.Str() != prefix) continue;
    if (lines->name.Str().empty()) {
      PNL_LOG(log_module, 4, "%s: a line of kind '%s' has no name", layout::kRepoConf,
              prefix.c_str());
      continue;
    }
    repos[lines->name.Str()] = RepoInfo(lines->location.Str(), false);
  }
}

Repo::~Repo() = default;

bool Repo::Delete(const std::string& name) {
  PNL_ENTRY(log_module);
  const auto lines = RepoLines();
  if (!lines->Locate(prefix + name)) return false;
  lines->_Delete();
  return true;
}

void Repo::Set(const std::string& name, const std::string& location) {
  PNL_ENTRY(log_module);
  const auto lines = RepoLines();
  if (!lines->Locate(prefix + name)) {
    lines->NewRecord();
    lines->prefix.Set(prefix);
    lines->name.Set(name);
  }
  lines->location.Set(location);
  lines->Post();
  repos[name] = RepoInfo(location, false);
}

bool Repo::Exists(const std::string& name) const {
  return repos.count(name) != 0;
}

std::string Repo::GetLocation(const std::string& name) const {
  const auto found = repos.find(name);
  return found == repos.end() ? "" : found->second.location;
}

std::string Repo::GetID(const std::string& location) const {
  const auto found = std::find_if(repos.begin(), repos.end(), [&](const auto& repo) {
    return repo.second.location == location;
  });
  return found == repos.end() ? "" : found->first;
}

}  // namespace ostemplate
