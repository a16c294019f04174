#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/export.h"
#include "pnl/ssh.h"

/// The counters that a host's kernel keeps of its devices, as proc(5) shows them.
///
///     pnl_host::Host host{pnl_rpc::SSH(options)};
///     const std::string output = host.Run(fleet::SampleCommand()).output;
///     const auto readings = fleet::ParseSample("web1", std::time(nullptr), output);
///
/// A counter goes through three types: a Reading is what the kernel said, an Increase what that is
/// more than the reading before, a StoredRow what the tables hold. fleet/sample_store.h takes the
/// last two steps. Functions may be called by any thread.
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

/// A device of a host.
struct Device {
  const SampleKind* kind;  ///< stays as long as the process
  std::string host;
  std::string name;

  /// What its counters are kept under: host and device with ":" between them.
  [[nodiscard]] FLEET_API std::string ObjectName() const;
};

/// What a host said of a device: what its kernel has counted since it started.
struct Reading {
  Device device;
  std::time_t taken = 0;
  std::vector<std::int64_t> counters;  ///< as the kind has them
};

/// The shell command, here or on a node, whose output ParseSample takes. It only reads.
[[nodiscard]] FLEET_API std::string SampleCommand();

/// The readings of a sample: network interfaces, processors, and disks (neither partitions nor what
/// is laid over disks, so that nothing counts twice). `host` and `taken` become theirs, as they
/// stand; `host` should be a SafeKey and a ColumnKey. Throws pnl_err::Error("stat", "sample", host)
/// for an output that is not whole.
[[nodiscard]] FLEET_API std::vector<Reading> ParseSample(const std::string& host, std::time_t taken,
                                                         std::string_view output);

/// `name` as a word that the counters' file, their names and any database can hold: what is no
/// printable ASCII character, and "%", "#" and ":" are written as "%" and two hexadecimal digits.
[[nodiscard]] FLEET_API std::string SafeKey(std::string_view name);
/// `key` as the 64 characters of a column for keys can hold it: what is longer ends in a hash.
[[nodiscard]] FLEET_API std::string ColumnKey(std::string_view key);

/// What the samples of a node are kept under: its address, and its port where that is not 22, as a
/// SafeKey and a ColumnKey. An IPv6 address keeps its colons.
[[nodiscard]] FLEET_API std::string SampleHost(const pnl_rpc::SshOptions& node);

}  // namespace fleet
