#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "brefir/stat_raw.h"

/// The counters that a host's kernel keeps of its devices, as proc(5) shows them.
namespace tools {

/// One counter: the name of its column, which word behind the device's name it is, and what one of
/// its units counts.
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

/// net, cpu, disk.
[[nodiscard]] const std::vector<SampleKind>& SampleKinds();
[[nodiscard]] const SampleKind& FindSampleKind(std::string_view name);  ///< one of them

/// The counters of one device of one host, as the kernel counts them, then normalised, then folded.
class DeviceRow : public Stat::Recordset {
 public:
  explicit DeviceRow(const SampleKind& kind);  ///< which stays as long as the row

  std::string Name() const override { return kind_.name; }
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

/// The shell command, here or on a node, whose output ParseSample takes.
[[nodiscard]] std::string SampleCommand();

/// The rows of a sample: network interfaces, processors, and disks (neither partitions nor what is
/// laid over disks, so that nothing counts twice). pnl_err::Error("stat", "sample", host) for an
/// output that is not whole.
[[nodiscard]] DeviceRows ParseSample(const std::string& host, std::string_view output);

/// `name` as a word that the counters' file, their names and any database can hold: what is no
/// printable ASCII character, and "%", "#" and ":" are written as "%" and two hexadecimal digits.
[[nodiscard]] std::string SafeKey(std::string_view name);

}  // namespace tools
