#pragma once

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "pnl/file.h"
#include "pnldb/db.h"
#include "tools/stat_sample.h"

/// Where samples go: a table for each kind of device, with a row for each sample of a device.
namespace tools {

/// Opens the database that etc/brefir.conf names, and makes the tables that it lacks.
std::shared_ptr<pnl_db::Cache> OpenStatDatabase();

/// Holds the counters of this panel: who loads, changes and flushes them has them alone meanwhile.
class CountersLock {
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
void StoreSample(pnl_db::Cache& db, DeviceRows& rows, std::time_t taken);

/// Forgets counters, in the file and in the table: all of them, those of one object, or one. How
/// many there were. Have the lock.
std::size_t ResetCounters(pnl_db::Cache& db, const std::string& name, const std::string& cname);

/// How samples are put together.
struct StatFold {
  long block = 3600;              ///< seconds
  std::time_t from = 0;           ///< samples from here on
  std::time_t to = 0;             ///< and before this
  std::vector<std::string> keys;  ///< that stay apart; of the others all values are one
};

/// The rows of one block each, in the order of time and keys.
struct FoldedRow {
  long begin = 0;  ///< first second of the block
  std::unique_ptr<DeviceRow> row;
};
[[nodiscard]] std::vector<FoldedRow> FoldSamples(pnl_db::Cache& db, const SampleKind& kind,
                                                 const StatFold& fold);

}  // namespace tools
