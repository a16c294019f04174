#pragma once

#include <string>

#include "brefir/ostemplates_common.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/thread.h"

/// Updates a cache of repositories, and lets its users wait for a running update of this or another
/// process, so that they do not find the cache incomplete. For the sources of this directory only.
namespace ostemplate {

inline constexpr int kUpdateWait = 600;  // seconds; servers may be slow

/// A shared lock that says that the cache in `dir` is being updated. Several updates may hold it.
/// When it cannot be taken, that is logged and the update goes on.
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

/// Calls `update(name, location)` for each repository of the cache in `dir`; one caller at a time
/// in this process. A failure is logged, and the repository is added to `failed` unless that is
/// null. Returns whether all were updated.
template <class Update>
bool UpdateEach(const Repo& repositories, const std::string& dir, StringSet* failed,
                pnl_log::Module& log, const Update& update) {
  static auto& at_work = *new pnl_thread::SafeLock();  // shared by all calls with this Update type
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

/// Waits until no update of the cache in `dir` is running.
inline void WaitForUpdate(const std::string& dir, pnl_log::Module& log) {
  try {
    pnl_file::Lock().DoLockWithTimeout(dir, true, kUpdateWait, 1);
  } catch (const pnl_err::Error& error) {
    PNL_LOG(log, 3, "'%s' is read while it is updated: %s", dir.c_str(), error.what());
  }
}

}  // namespace ostemplate
