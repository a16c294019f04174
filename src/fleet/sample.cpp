#include "fleet/sample.h"

#include <algorithm>
#include <utility>

#include "brefir/stat_utils.h"
#include "brefir/str_utils.h"
#include "pnl/err.h"

namespace fleet {
namespace {

constexpr std::string_view kMark = "== ";  // before a file's name in the output
constexpr std::string_view kDisks = "disks";
constexpr std::string_view kEnd = "end";
constexpr std::uint64_t kSector = 512;  // bytes, whatever the disk's own sectors are

/// Cuts off and returns the device of a line; "" when there is none.
std::string_view CutDevice(const SampleKind& kind, std::string_view& line, const StringSet& disks) {
  if (kind.name == "net") {
    const std::string_view device = str::TrimView(str::NextWord(line, ':'));
    return line.empty() ? "" : device;  // the heading has no colon
  }
  if (kind.name == "cpu") {
    const std::string_view device = str::NextWord(line);
    // "cpu" alone is the sum of all.
    return device.starts_with("cpu") && device != "cpu" ? device : "";
  }
  str::NextWord(line);  // major and minor number
  str::NextWord(line);
  const std::string_view device = str::NextWord(line);
  return disks.count(std::string(device)) != 0 ? device : "";
}

/// The counters of a line; none when it has fewer words.
std::vector<std::int64_t> ParseCounters(const SampleKind& kind, std::string_view line) {
  std::vector<std::string_view> words;
  while (!line.empty()) words.push_back(str::NextWord(line));
  std::vector<std::int64_t> counters;
  for (const SampleCounter& counter : kind.counters) {
    if (counter.word >= words.size()) return {};
    const auto number = static_cast<std::uint64_t>(str::Int64(words[counter.word]));
    counters.push_back(static_cast<std::int64_t>(number * counter.unit));
  }
  return counters;
}

}  // namespace

const std::vector<SampleKind>& SampleKinds() {
  // For processors, idle and iowait are left out: proc(5) says that they may decrease, and a
  // decrease counts as a restart.
  static const auto& kinds = *new std::vector<SampleKind>{
      // never destroyed
      {"net",
       "/proc/net/dev",
       "stat_net",
       {{"rx_bytes", 0}, {"rx_packets", 1}, {"tx_bytes", 8}, {"tx_packets", 9}}},
      {"cpu",
       "/proc/stat",
       "stat_cpu",
       {{"user_ticks", 0},
        {"nice_ticks", 1},
        {"system_ticks", 2},
        {"irq_ticks", 5},
        {"softirq_ticks", 6},
        {"steal_ticks", 7}}},
      {"disk",
       "/proc/diskstats",
       "stat_disk",
       {{"reads", 0},
        {"read_bytes", 2, kSector},
        {"writes", 4},
        {"written_bytes", 6, kSector},
        {"busy_ms", 9}}},
  };
  return kinds;
}

const SampleKind& FindSampleKind(std::string_view name) {
  for (const SampleKind& kind : SampleKinds())
    if (kind.name == name) return kind;
  throw pnl_err::Missed("stat_kind", name);
}

std::string Device::ObjectName() const {
  return str::Append(host, name, ":");
}

std::string SampleCommand() {
  std::string files;
  for (const SampleKind& kind : SampleKinds()) files += " " + kind.file;
  // A whole disk has a link to its device. The mark at the end shows that the output is complete.
  return "echo '== disks'; ls -d /sys/block/*/device 2>/dev/null; for f in" + files +
         "; do echo \"== $f\"; cat $f; done; echo '== end'";
}

std::vector<Reading> ParseSample(const std::string& host, std::time_t taken,
                                 std::string_view output) {
  std::vector<Reading> readings;
  StringSet disks;
  std::string_view section;
  const SampleKind* kind = nullptr;
  while (!output.empty()) {
    std::string_view line = str::NextWord(output, '\n');
    if (line.starts_with(kMark)) {
      section = line.substr(kMark.size());
      const auto found =
          std::find_if(SampleKinds().begin(), SampleKinds().end(),
                       [&](const SampleKind& known) { return known.file == section; });
      kind = found == SampleKinds().end() ? nullptr : &*found;
    } else if (section == kDisks) {
      const std::vector<std::string> path = StatUtils::SplitPath(std::string(line));
      if (path.size() == 4) disks.insert(str::Replace(path[2], "!", "/"));  // as sysfs writes "/"
    } else if (kind != nullptr) {
      const std::string device = ColumnKey(SafeKey(CutDevice(*kind, line, disks)));
      if (device.empty()) continue;
      std::vector<std::int64_t> counters = ParseCounters(*kind, line);
      if (!counters.empty()) readings.push_back({{kind, host, device}, taken, std::move(counters)});
    }
  }
  if (section != kEnd || readings.empty()) {
    throw pnl_err::Error("stat", "sample", host)
        .add_param("message", host + ": its counters in /proc cannot be read");
  }
  return readings;
}

std::string SafeKey(std::string_view name) {
  std::string key;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = byte > ' ' && byte < 0x7f && c != '%' && c != '#' && c != ':';
    if (plain) {
      key += c;
    } else {
      key += "%" + str::hex::Encode({&c, 1});
    }
  }
  return key;
}

std::string ColumnKey(std::string_view key) {
  constexpr std::size_t kWidth = 64;
  return str::Shorten(key, kWidth);
}

std::string SampleHost(const pnl_rpc::SshOptions& node) {
  // Nodes with one address have different ports. A device's name, after the last colon, has no
  // colon.
  const std::string port = node.port == 22 ? "" : ":" + std::to_string(node.port);
  return ColumnKey(str::Replace(SafeKey(str::Lower(node.host)), "%3a", ":") + port);
}

}  // namespace fleet
