#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/export.h"
#include "pnl/ssh.h"

/// The counters that a host's kernel keeps for its devices; see proc(5).
///
///     pnl_host::Host host{pnl_rpc::SSH(options)};
///     const std::string output = host.Run(fleet::SampleCommand()).output;
///     const auto readings = fleet::ParseSample("web1", std::time(nullptr), output);
///
/// There are three forms of counters. A Reading has the kernel's values. An Increase has the
/// differences from the reading before. A StoredRow is a row of the tables. fleet/sample_store.h
/// makes the last two. All functions are thread-safe.
namespace fleet {

/// One counter: the name of its column, the number of its word after the device's name (the first
/// is 0), and the factor from the kernel's unit to the column's unit.
struct SampleCounter {
  std::string name;
  std::size_t word;
  std::uint64_t unit = 1;
};

/// A kind of device, the file with its counters, and the table that stores them. Counter names are
/// unique among all kinds, so that devices of two kinds may have the same name.
struct SampleKind {
  std::string name;
  std::string file;
  std::string table;
  std::vector<SampleCounter> counters;
};

/// The kinds net, cpu and disk; valid as long as the process runs.
[[nodiscard]] FLEET_API const std::vector<SampleKind>& SampleKinds();
/// The kind of that name; throws pnl_err::Missed("stat_kind", name).
[[nodiscard]] FLEET_API const SampleKind& FindSampleKind(std::string_view name);

/// A device of a host.
struct Device {
  const SampleKind* kind;  ///< valid as long as the process runs
  std::string host;
  std::string name;

  /// The object name of its counters: host and device, joined by ":".
  [[nodiscard]] FLEET_API std::string ObjectName() const;
};

/// The values of a device that the kernel has counted since it started.
struct Reading {
  Device device;
  std::time_t taken = 0;
  std::vector<std::int64_t> counters;  ///< in the order of the kind
};

/// The shell command, for this host or a node, whose output ParseSample parses. It changes nothing.
[[nodiscard]] FLEET_API std::string SampleCommand();

/// The readings of a sample: network interfaces, processors, and whole disks. Partitions and
/// devices above disks are left out, so that nothing counts twice. `host` and `taken` are stored in
/// the readings; `host` should be a SafeKey and a ColumnKey. Throws pnl_err::Error("stat",
/// "sample", host) for an incomplete output.
[[nodiscard]] FLEET_API std::vector<Reading> ParseSample(const std::string& host, std::time_t taken,
                                                         std::string_view output);

/// `name` as a word that is valid in the counters' file, in object names and in any database. Bytes
/// that are not printable ASCII, and "%", "#" and ":", are written as "%" and two hexadecimal
/// digits.
[[nodiscard]] FLEET_API std::string SafeKey(std::string_view name);
/// `key` shortened to the 64 characters of a key column: a longer one ends with a hash.
[[nodiscard]] FLEET_API std::string ColumnKey(std::string_view key);

/// The host name for the samples of a node: its address, and its port if not 22, as a SafeKey and a
/// ColumnKey. The colons of an IPv6 address are kept.
[[nodiscard]] FLEET_API std::string SampleHost(const pnl_rpc::SshOptions& node);

}  // namespace fleet
