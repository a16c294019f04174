#include "parser/conf_cache.h"

#include <algorithm>
#include <map>

#include "pnl/err.h"

namespace {

struct Kind {
  pnl_token::Params rules;
  std::map<std::string, PnlConfCache::MakeDataSet> data_sets;
};

struct Kinds {
  std::mutex mutex;
  std::map<std::string, Kind> by_name;
};

/// Returns a copy, so that nothing is called while the lock is held.
Kind FindKind(const std::string& name) {
  Kinds& kinds = Singleton<Kinds>::Instance();
  const std::lock_guard guard(kinds.mutex);
  const auto found = kinds.by_name.find(name);
  if (found == kinds.by_name.end()) throw pnl_err::Missed("config", name);
  return found->second;
}

}  // namespace

void PnlConfCache::Register(const std::string& name, const pnl_token::Params& rules) {
  Kinds& kinds = Singleton<Kinds>::Instance();
  const std::lock_guard guard(kinds.mutex);
  kinds.by_name[name].rules = rules;
}

void PnlConfCache::AddDataSet(const std::string& name, const std::string& data_set,
                              MakeDataSet make) {
  Kinds& kinds = Singleton<Kinds>::Instance();
  const std::lock_guard guard(kinds.mutex);
  kinds.by_name[name].data_sets[data_set] = std::move(make);
}

BaseCachedConfigEvent::~BaseCachedConfigEvent() = default;

pnl_thread::SafeLock& BaseCachedConfigEvent::GetInitLock() {
  return Singleton<pnl_thread::SafeLock>::Instance();
}

std::shared_ptr<ConfDataSet> ConfRef::Get(const std::string& data_set) const {
  const Kind kind = FindKind(kind_);
  const auto make = kind.data_sets.find(data_set);
  if (make == kind.data_sets.end()) throw pnl_err::Missed("dataset", data_set);
  std::shared_ptr<ConfDataSet> set = make->second();
  set->Open(file_);
  return set;
}

ConfRef ConfCache::Config(const std::string& name, const std::string& path, bool load) {
  ConfRef conf(name, Find(name, path));
  if (load) conf.file_->Current();
  return conf;
}

std::shared_ptr<ConfFile> ConfCache::Find(const std::string& name, const std::string& path) {
  const std::lock_guard guard(mutex_);
  const auto found = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) {
    return entry.kind == name && entry.file->path() == path;
  });
  if (found == entries_.end()) {
    entries_.push_front({name, std::make_shared<ConfFile>(path, FindKind(name).rules)});
  } else {
    entries_.splice(entries_.begin(), entries_, found);
  }
  std::shared_ptr<ConfFile> file = entries_.front().file;
  if (entries_.size() > capacity_) entries_.pop_back();
  return file;
}
