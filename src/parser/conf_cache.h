#pragma once

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "parser/conf_file.h"
#include "parser/dataset.h"
#include "parser/token.h"
#include "pnl/export.h"
#include "pnl/thread.h"

/// The cache of configuration files. A kind of file has a name, token rules and data sets. An
/// object of a class derived from PnlCachedConfig registers the kind once. A ConfCache opens a file
/// of that kind, and a data set reads it:
///
///     ConfRef conf = files.Config("HostsConf", "etc/hosts.conf", true);
///     auto hosts = std::static_pointer_cast<Hosts>(conf.Get("Hosts"));
///     for (hosts->First(); !hosts->Eof(); hosts->Next()) Use(hosts->name.Str());
///
/// Thread safety: everything here may be called from any thread. Threads share the parsed text,
/// which never changes; each call of ConfRef::Get makes a data set of its own.

/// The kinds of configuration files that this process knows.
class PNL_API PnlConfCache {
 public:
  using MakeDataSet = std::function<std::shared_ptr<ConfDataSet>()>;

  /// Registers a kind of file. Registering it again replaces the rules for files that are opened
  /// later.
  static void Register(const std::string& name, const pnl_token::Params& rules);
  /// Registers a data set of a kind.
  static void AddDataSet(const std::string& name, const std::string& data_set, MakeDataSet make);
};

/// State that all configurations of a process share.
class PNL_API BaseCachedConfigEvent {
 public:
  virtual ~BaseCachedConfigEvent();

  /// Held while the process-wide objects of a configuration are made.
  static pnl_thread::SafeLock& GetInitLock();
};

/// The base of the classes that register a kind of file in their constructor.
class PNL_API PnlCachedConfig : public BaseCachedConfigEvent {
 public:
  const std::string& name() const { return name_; }

 protected:
  explicit PnlCachedConfig(std::string name) : name_(std::move(name)) {}

  template <class DataSet>
  void AddDataSet(const std::string& data_set) {
    PnlConfCache::AddDataSet(name_, data_set, [] { return std::make_shared<DataSet>(); });
  }

 private:
  std::string name_;
};

/// One configuration file. A small value; it stays valid when the cache drops the file.
class PNL_API ConfRef {
 public:
  /// A new data set with the file's current content, at its first record. Errors:
  /// pnl_err::Missed("dataset", data_set) when the kind has no data set of that name; "file" when
  /// the file cannot be read.
  [[nodiscard]] std::shared_ptr<ConfDataSet> Get(const std::string& data_set) const;

 private:
  friend class ConfCache;
  ConfRef(std::string kind, std::shared_ptr<ConfFile> file)
      : kind_(std::move(kind)), file_(std::move(file)) {}

  std::string kind_;
  std::shared_ptr<ConfFile> file_;
};

/// Keeps the parsed texts of the `capacity` files that were used last.
class PNL_API ConfCache {
 public:
  explicit ConfCache(std::size_t capacity) : capacity_(capacity) {}
  ConfCache(const ConfCache&) = delete;
  ConfCache& operator=(const ConfCache&) = delete;

  /// Opens the file `path` as a file of the kind `name`. A relative path is resolved at each use.
  /// With `load` the file is read now, so that its errors are thrown here; otherwise ConfRef::Get
  /// reads it. Errors: pnl_err::Missed("config", name) for an unknown kind.
  [[nodiscard]] ConfRef Config(const std::string& name, const std::string& path, bool load);

 private:
  struct Entry {
    std::string kind;
    std::shared_ptr<ConfFile> file;
  };

  std::shared_ptr<ConfFile> Find(const std::string& name, const std::string& path);

  const std::size_t capacity_;
  std::mutex mutex_;          // guards the list, not the files in it
  std::list<Entry> entries_;  // most recently used first
};
