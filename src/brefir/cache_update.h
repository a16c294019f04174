#pragma once

#include <string>

#include "brefir/ostemplates_common.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/thread.h"

/// For the sources of this directory only: how a cache of repositories is updated, and how its
/// users wait for the update that is just making it, in this process or another, instead of finding
/// it incomplete.
namespace ostemplate {

inline constexpr int kUpdateWait = 600;  // seconds; an update takes what its servers take

/// Held by whoever updates the cache in `dir`. Updates need not exclude each other; and one that
/// cannot say that it goes on still does.
inline pnl_file::Lock TellUpdate(const std::string& dir, pnl_log::Module& log) {
  pnl_file::Lock lock;
  try {
    pnl_file::MkDir(pnl_file::Folder(dir));
    lock.DoLockWithTimeout(dir, false, 5, 1);
  } catch (const pnl_err::Error& error) {
    PNL_LOG(log, 3, "'%s' is updated without a lock: %s", dir.c_str(), error.what());
  }
  return lock;
}

/// Does `update(name, location)` with each repository of the cache in `dir`; in this process one
/// caller at a time. A repository that could not be updated is logged, and noted in `failed` unless
/// that is null. Whether all were.
template <class Update>
bool UpdateEach(const Repo& repositories, const std::string& dir, StringSet* failed,
                pnl_log::Module& log, const Update& update) {
  static auto& at_work = *new pnl_thread::SafeLock();  // of all calls with this kind of update
  const pnl_thread::SafeSection section(at_work);
  const pnl_file::Lock told = TellUpdate(dir, log);
  bool all = true;
  for (const auto& [name, info] : repositories.repos) {
    try {
      update(name, info.location);
    } catch (const pnl_err::Error& error) {
      PNL_LOG(log, 3, "Repository '%s' was not updated: %s", name.c_str(), error.what());
      if (failed != nullptr) failed->insert(name);
      all = false;
    }
  }
  return all;
}

/// Returns when nobody updates the cache in `dir`, at once where nobody does.
inline void WaitForUpdate(const std::string& dir, pnl_log::Module& log) {
  try {
    pnl_file::Lock().DoLockWithTimeout(dir, true, kUpdateWait, 1);
  } catch (const pnl_err::Error& error) {
    PNL_LOG(log, 3, "'%s' is read while it is updated: %s", dir.c_str(), error.what());
  }
}

}  // namespace ostemplate
