#pragma once

#include <cstddef>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "fleet/sample.h"
#include "pnl/file.h"
#include "pnldb/db.h"

/// Where samples go: a table for each kind of device, with a row for each sample of a device.
///
///     const auto db = fleet::OpenStatDatabase();
///     const fleet::CountersLock lock;
///     fleet::DeviceRows rows = fleet::ParseSample("web1", output);
///     fleet::StoreSample(*db, rows, std::time(nullptr));
///
/// A database handle is for one thread at a time, and so are StoreSample and ResetCounters: they
/// work on the counters of the process.
namespace fleet {

/// Opens the database that the setting stat_database names, and makes the tables that it lacks;
/// where it lacks none, who can only read it can read it.
/// What fails there is thrown as it comes from the database, with a message that names the setting.
[[nodiscard]] FLEET_API std::shared_ptr<pnl_db::Cache> OpenStatDatabase();

/// Holds the counters of this panel, var/stat.counters: who loads, changes and flushes them has
/// them alone meanwhile, among all processes. The constructor waits up to 60 s for another holder,
/// then throws pnl_err::Error("lock", "timeout").
class FLEET_API CountersLock {
 public:
  CountersLock();

 private:
  pnl_file::Lock lock_;
};

/// Normalises the rows and stores them under the time `taken`; the counters of the process are
/// loaded and flushed. Have the lock, and from before the sample was taken: an older sample must
/// not come after a newer one.
///
/// Every increase is stored once. The raw values go to the table "counters" in the transaction that
/// stores the rows, and count from then on; the counters' file follows. When that fails, or the
/// program dies before it, the next call takes them from the table.
///
/// Throws what the database and the counters' file throw; after an error of the database nothing is
/// stored.
FLEET_API void StoreSample(pnl_db::Cache& db, DeviceRows& rows, std::time_t taken);

/// Forgets counters, in the file and in the table: those called `cname` of the object `name`,
/// either of them "" for all. How many there were. Have the lock. Throws as StoreSample.
FLEET_API std::size_t ResetCounters(pnl_db::Cache& db, const std::string& name,
                                    const std::string& cname);

/// How samples are put together.
struct StatFold {
  long block = 3600;              ///< seconds
  std::time_t from = 0;           ///< samples from here on
  std::time_t to = 0;             ///< and before this
  std::vector<std::string> keys;  ///< that stay apart; of the others all values are one
};

/// The rows of one block each.
struct FoldedRow {
  long begin = 0;  ///< first second of the block, which begins and ends by local time
  std::unique_ptr<DeviceRow> row;
};

/// The samples of a kind, folded, in the order of time and keys; `kind` has to stay as long as the
/// rows. Throws what the database throws.
[[nodiscard]] FLEET_API std::vector<FoldedRow> FoldSamples(pnl_db::Cache& db,
                                                           const SampleKind& kind,
                                                           const StatFold& fold);

}  // namespace fleet
