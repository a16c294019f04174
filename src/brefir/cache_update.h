#pragma once

#include <string>

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"

/// For the sources of this directory only: how a user of a cache of repositories waits for the
/// update that is just making it, in this process or another, instead of finding it incomplete.
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

/// Returns when nobody updates the cache in `dir`, at once where nobody does.
inline void WaitForUpdate(const std::string& dir, pnl_log::Module& log) {
  try {
    pnl_file::Lock().DoLockWithTimeout(dir, true, kUpdateWait, 1);
  } catch (const pnl_err::Error& error) {
    PNL_LOG(log, 3, "'%s' is read while it is updated: %s", dir.c_str(), error.what());
  }
}

}  // namespace ostemplate
