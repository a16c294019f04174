#pragma once

#include <memory>
#include <string>
#include <vector>

#include "brefir/export.h"

namespace pnl_db {
class Cache;
}

/// The statistics database, and the time blocks that group samples.
///
///     StatUtils::InitStatsDB(pnl_db::Cache::Open("sqlite:var/stat.db"));
///     StatUtils::block_left(time(nullptr), 86400);   // the last local midnight
///
/// Times are seconds since the epoch. Thread-safe.
class BREFIR_API StatUtils {
 public:
  /// Stores the handle for the whole process; replaces an earlier one.
  static void InitStatsDB(std::shared_ptr<pnl_db::Cache> db);
  /// The handle; throws pnl_err::Error("db_doesnt_init") when none was stored.
  [[nodiscard]] static std::shared_ptr<pnl_db::Cache> DB();

  /// The current offset of local time from UTC in seconds, positive east of Greenwich.
  [[nodiscard]] static long block_offset();
  /// The first and the last second of the block of `size` seconds that contains `t`. Blocks are
  /// aligned to local midnight when `size` divides a day. The current offset of the zone is always
  /// used, even when summer time began or ended since `t`. A `size` below 1 is
  /// pnl_err::Error("block_size", "", size).
  [[nodiscard]] static long block_left(long t, long size);
  [[nodiscard]] static long block_right(long t, long size);

  /// The components of `path` that are not empty: SplitPath("//a//b/") is a, b.
  [[nodiscard]] static std::vector<std::string> SplitPath(const std::string& path);
  /// The components that begin with "@", without it: SplitKeys("/a/@host/b/@user") is host, user.
  [[nodiscard]] static std::vector<std::string> SplitKeys(const std::string& path);
};

/// Lists directory trees with fts(3).
namespace fts {

/// Appends every regular file at or below `path` to `files`, in the order of the directories, and
/// returns how many. Each begins with `path` as given. Links are not followed. A directory that
/// cannot be read is skipped, and so is a `path` that does not exist. Throws pnl_err::Error of type
/// "fts_open" (an empty path), "fts_read" or "fts_close", parameter "path"; files found before the
/// error are in `files`.
BREFIR_API int GetList(const std::string& path, std::vector<std::string>& files);

}  // namespace fts
