#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "brefir/stat_raw.h"
#include "fleet/export.h"

/// The counters that a host's kernel keeps of its devices, as proc(5) shows them.
///
///     pnl_host::Host host{pnl_rpc::SSH(options)};
///     const auto rows = fleet::ParseSample("web1", host.Run(fleet::SampleCommand()).output);
///
/// fleet/sample_store.h keeps them. Functions may be called by any thread, rows are for one at a
/// time.
namespace fleet {

/// One counter: the name of its column, which word behind the device's name it is (the first is 0),
/// and how many of what the column counts are in one of the kernel's units.
struct SampleCounter {
  std::string name;
  std::size_t word;
  std::uint64_t unit = 1;
};

/// A kind of device, the file that has its counters and the table that keeps them. No two kinds
/// have a counter of one name, so that devices of two kinds may share theirs.
struct SampleKind {
  std::string name;
  std::string file;
  std::string table;
  std::vector<SampleCounter> counters;
};

/// net, cpu, disk; they stay as long as the process.
[[nodiscard]] FLEET_API const std::vector<SampleKind>& SampleKinds();
/// One of them; throws pnl_err::Missed("stat_kind", name).
[[nodiscard]] FLEET_API const SampleKind& FindSampleKind(std::string_view name);

/// The counters of one device of one host, as the kernel counts them, then normalised, then folded.
class FLEET_API DeviceRow : public Stat::Recordset {
 public:
  /// All counters are 0. `kind` has to stay as long as the row.
  explicit DeviceRow(const SampleKind& kind);

  std::string Name() const override;  ///< the kind's
  const SampleKind& Kind() const { return kind_; }
  /// What the counter cache knows the device by: host and device with ":" between them.
  std::string ObjectName();

  Stat::KeyField host{this, "host"};
  Stat::KeyField device{this, "device"};
  std::vector<std::unique_ptr<Stat::DataField>> counters;  ///< as the kind has them

 private:
  const SampleKind& kind_;
};

using DeviceRows = std::vector<std::unique_ptr<DeviceRow>>;

/// The shell command, here or on a node, whose output ParseSample takes. It only reads.
[[nodiscard]] FLEET_API std::string SampleCommand();

/// The rows of a sample: network interfaces, processors, and disks (neither partitions nor what is
/// laid over disks, so that nothing counts twice). `host` becomes the rows' host, as it stands: it
/// should be a SafeKey and a ColumnKey. Throws pnl_err::Error("stat", "sample", host) for an output
/// that is not whole.
[[nodiscard]] FLEET_API DeviceRows ParseSample(const std::string& host, std::string_view output);

/// `name` as a word that the counters' file, their names and any database can hold: what is no
/// printable ASCII character, and "%", "#" and ":" are written as "%" and two hexadecimal digits.
[[nodiscard]] FLEET_API std::string SafeKey(std::string_view name);
/// `key` as the 64 characters of a column for keys can hold it: what is longer ends in a hash.
[[nodiscard]] FLEET_API std::string ColumnKey(std::string_view key);

}  // namespace fleet
