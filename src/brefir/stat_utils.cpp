#include "brefir/stat_utils.h"

#include <fts.h>

#include <cerrno>
#include <ctime>
#include <mutex>
#include <utility>

#include "pnl/err.h"
#include "pnl/log.h"
#include "pnl/str.h"
#include "pnl/thread.h"

namespace {

pnl_log::Module log_module("stat");

// --- The handle

struct Handle {
  std::mutex mutex;  // guards db
  std::shared_ptr<pnl_db::Cache> db;
};

Handle& TheHandle() {
  return Singleton<Handle>::Instance();
}

// --- Blocks

/// Sums near the ends of the range wrap around; signed overflow would be undefined.
long Wrapped(unsigned long number) {
  return static_cast<long>(number);
}

/// The number of the block that contains `t`, counted from the epoch's local midnight.
long BlockNumber(long t, long size) {
  if (size < 1) throw pnl_err::Error("block_size", "", str::Str(size));
  return Wrapped(static_cast<unsigned long>(t) +
                 static_cast<unsigned long>(StatUtils::block_offset())) /
         size;
}

/// The first second of the block `number`. The offset is read again: it may change between two
/// calls.
long BlockStart(long number, long size) {
  return Wrapped(static_cast<unsigned long>(number) * static_cast<unsigned long>(size) -
                 static_cast<unsigned long>(StatUtils::block_offset()));
}

}  // namespace

// --- StatUtils

void StatUtils::InitStatsDB(std::shared_ptr<pnl_db::Cache> db) {
  const std::lock_guard guard(TheHandle().mutex);
  TheHandle().db.swap(db);  // the earlier handle is destroyed after unlocking
}

std::shared_ptr<pnl_db::Cache> StatUtils::DB() {
  const std::lock_guard guard(TheHandle().mutex);
  if (TheHandle().db == nullptr) throw pnl_err::Error("db_doesnt_init");
  return TheHandle().db;
}

long StatUtils::block_offset() {
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  return local.tm_gmtoff;
}

long StatUtils::block_left(long t, long size) {
  return BlockStart(BlockNumber(t, size), size);
}

long StatUtils::block_right(long t, long size) {
  const auto next = static_cast<unsigned long>(BlockNumber(t, size)) + 1;
  return Wrapped(static_cast<unsigned long>(BlockStart(Wrapped(next), size)) - 1);
}

std::vector<std::string> StatUtils::SplitPath(const std::string& path) {
  std::vector<std::string> components;
  str::Split(path, "/", components);
  std::erase(components, "");
  return components;
}

std::vector<std::string> StatUtils::SplitKeys(const std::string& path) {
  std::vector<std::string> keys;
  for (const std::string& component : SplitPath(path))
    if (component.starts_with('@')) keys.push_back(component.substr(1));
  return keys;
}

// --- Directories

namespace {

pnl_err::Error WalkError(const char* type, const std::string& path) {
  return pnl_err::Error(type).add_param("path", path);
}

struct CloseWalk {
  void operator()(FTS* walk) const { fts_close(walk); }
};

}  // namespace

int fts::GetList(const std::string& path, std::vector<std::string>& files) {
  std::string root = path;  // fts_open takes a non-const name
  char* const roots[] = {root.data(), nullptr};
  std::unique_ptr<FTS, CloseWalk> walk(fts_open(roots, FTS_NOCHDIR, nullptr));
  if (walk == nullptr) throw WalkError("fts_open", path);
  int added = 0;
  // Only errno distinguishes the end from a failure.
  for (errno = 0; const FTSENT* entry = fts_read(walk.get()); errno = 0) {
    if (entry->fts_info != FTS_F) continue;
    PNL_LOG(log_module, 9, "add file %s", entry->fts_path);
    files.emplace_back(entry->fts_path);
    ++added;
  }
  if (errno != 0) throw WalkError("fts_read", path);
  if (fts_close(walk.release()) != 0) throw WalkError("fts_close", path);
  return added;
}
