#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "brefir/stat_raw.h"
#include "fleet/export.h"
#include "fleet/sample.h"
#include "pnl/file.h"
#include "pnldb/db.h"

/// Stores samples: a table for each kind of device, a row for each sample of a device.
///
///     fleet::SampleStore store(fleet::OpenStatDatabase());
///     store.Store(fleet::ParseSample("web1", std::time(nullptr), output));
///
/// Use objects from one thread at a time.
namespace fleet {

/// The increase of a device's counters from the previous reading to the one of the time `taken`. It
/// is 0 without a previous reading. When a counter has restarted, it is the counter's whole value.
struct Increase {
  Device device;
  std::time_t taken = 0;
  std::vector<std::int64_t> counters;  ///< as the kind has them
};

/// A row of the table of a kind: an increase, or the sum of several. Its fields are the table's
/// columns.
class FLEET_API StoredRow : public Stat::Recordset {
 public:
  /// All counters are 0. `kind` must outlive the row.
  explicit StoredRow(const SampleKind& kind);
  explicit StoredRow(const Increase& increase);

  std::string Name() const override;  ///< name of the kind
  const SampleKind& Kind() const { return kind_; }

  Stat::DataField taken{this, "taken", false, Stat::None};  ///< for a block: its first second
  Stat::KeyField host{this, "host"};
  Stat::KeyField device{this, "device"};
  std::vector<std::unique_ptr<Stat::DataField>> counters;  ///< as the kind has them

 private:
  const SampleKind& kind_;
};

using StoredRows = std::vector<std::unique_ptr<StoredRow>>;

/// Opens the database of the setting stat_database, and makes missing tables. When no table is
/// missing, read permission is enough. Throws the database's errors with a message that names the
/// setting.
[[nodiscard]] FLEET_API std::shared_ptr<pnl_db::Cache> OpenStatDatabase();

/// The samples of this panel, and the last value of each counter. The last values are stored in the
/// table "counters" and then in var/stat.counters. When they differ, because writing the file
/// failed or the program was killed, the table counts. The file counts only when the table has no
/// value.
class FLEET_API SampleStore {
 public:
  /// Locks the counters against all other processes. Waits up to 60 s, then throws
  /// pnl_err::Error("lock", "timeout").
  explicit SampleStore(std::shared_ptr<pnl_db::Cache> db);

  /// Stores the increases since the previous readings: all rows and their counters, or none. Take
  /// the readings after making this object: an older sample must not be stored after a newer one.
  /// Throws what the database and the counters' file throw. After an error of the database nothing
  /// is stored.
  void Store(const std::vector<Reading>& readings);

  /// Removes the counters `cname` of the object `name`; "" means all, for each of them. Returns how
  /// many were removed. Throws as Store does.
  std::size_t Reset(const std::string& name, const std::string& cname);

 private:
  std::shared_ptr<pnl_db::Cache> db_;
  pnl_file::Lock lock_;
};

/// How samples are combined.
struct StatFold {
  long block = 3600;     ///< seconds; aligned to local time
  std::time_t from = 0;  ///< samples from this time on
  std::time_t to = 0;    ///< samples before this time
  std::vector<std::string>
      keys;  ///< keys whose values are kept apart; values of other keys are combined
};

/// The samples of a kind: a row for each block and each value of the keys, sorted by both. `kind`
/// must outlive the rows. Throws what the database throws.
[[nodiscard]] FLEET_API StoredRows FoldSamples(pnl_db::Cache& db, const SampleKind& kind,
                                               const StatFold& fold);

/// The time of the newest sample of each host, by the host's name as SampleHost makes it. Samples
/// from before `from` do not count: to look at all of a large table takes long. Makes neither the
/// database nor its tables: none without them. Throws as OpenStatDatabase does.
[[nodiscard]] FLEET_API std::map<std::string, std::time_t> LastSamples(std::time_t from);

}  // namespace fleet
