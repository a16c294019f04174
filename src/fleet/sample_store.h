#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "brefir/stat_raw.h"
#include "fleet/export.h"
#include "fleet/sample.h"
#include "pnl/file.h"
#include "pnldb/db.h"

/// Where samples go: a table for each kind of device, with a row for each sample of a device.
///
///     fleet::SampleStore store(fleet::OpenStatDatabase());
///     store.Store(fleet::ParseSample("web1", std::time(nullptr), output));
///
/// Everything here is for one thread at a time.
namespace fleet {

/// What went up in a device's counters between the reading before and the one `taken` then: nothing
/// where there was none before, all of the counter where that began anew.
struct Increase {
  Device device;
  std::time_t taken = 0;
  std::vector<std::int64_t> counters;  ///< as the kind has them
};

/// A row of the table of a kind: an increase, or several that are added up. Its fields are the
/// table's columns.
class FLEET_API StoredRow : public Stat::Recordset {
 public:
  /// All counters are 0. `kind` has to stay as long as the row.
  explicit StoredRow(const SampleKind& kind);
  explicit StoredRow(const Increase& increase);

  std::string Name() const override;  ///< the kind's
  const SampleKind& Kind() const { return kind_; }

  Stat::DataField taken{this, "taken", false, Stat::None};  ///< of a block, its first second
  Stat::KeyField host{this, "host"};
  Stat::KeyField device{this, "device"};
  std::vector<std::unique_ptr<Stat::DataField>> counters;  ///< as the kind has them

 private:
  const SampleKind& kind_;
};

using StoredRows = std::vector<std::unique_ptr<StoredRow>>;

/// Opens the database that the setting stat_database names, and makes the tables that it lacks;
/// where it lacks none, who can only read it can read it.
/// What fails there is thrown as it comes from the database, with a message that names the setting.
[[nodiscard]] FLEET_API std::shared_ptr<pnl_db::Cache> OpenStatDatabase();

/// The samples of this panel and the last value of each of its counters, in the table "counters" and
/// in var/stat.counters. The database decides, and the file follows: when that fails, or the program
/// dies before it, the next sample goes by the table. Where the table has no value, the file's
/// counts.
class FLEET_API SampleStore {
 public:
  /// From here on the counters are this one's, among all processes; waits up to 60 s for another
  /// holder, then throws pnl_err::Error("lock", "timeout").
  explicit SampleStore(std::shared_ptr<pnl_db::Cache> db);

  /// Stores what went up since the readings before: all rows and the counters they account for, or
  /// none. Take the readings after this was made: an older sample must not come after a newer one.
  /// Throws what the database and the counters' file throw; after an error of the database nothing
  /// is stored.
  void Store(const std::vector<Reading>& readings);

  /// Forgets counters: those called `cname` of the object `name`, either of them "" for all. How
  /// many there were. Throws as Store.
  std::size_t Reset(const std::string& name, const std::string& cname);

 private:
  std::shared_ptr<pnl_db::Cache> db_;
  pnl_file::Lock lock_;
};

/// How samples are put together.
struct StatFold {
  long block = 3600;              ///< seconds; blocks begin and end by local time
  std::time_t from = 0;           ///< samples from here on
  std::time_t to = 0;             ///< and before this
  std::vector<std::string> keys;  ///< that stay apart; of the others all values are one
};

/// The samples of a kind, a row for each block and each value of the keys, in the order of both;
/// `kind` has to stay as long as the rows. Throws what the database throws.
[[nodiscard]] FLEET_API StoredRows FoldSamples(pnl_db::Cache& db, const SampleKind& kind,
                                               const StatFold& fold);

}  // namespace fleet
