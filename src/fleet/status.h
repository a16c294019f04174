#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "fleet/facts.h"

/// What of a node wants the attention of its administrator.
///
///     const fleet::Facts facts = fleet::AskFacts(host);
///     for (const fleet::Trouble& trouble : fleet::Troubles(facts)) Show(trouble.text);
///
/// All functions are thread-safe.
namespace fleet {

inline constexpr int kFullPercent = 95;        ///< of a disk, used: from here on
inline constexpr int kNearlyFullPercent = 90;  ///< of a disk, used: from here on
inline constexpr int kShortPercent = 5;        ///< of the memory, free: below it
inline constexpr double kLoadOfProcessor = 4;  ///< above it

/// In the order of how bad they are.
enum class TroubleKind {
  kForeignRun,  ///< a run that no journal here knows has not ended there
  kGuardFired,  ///< the guard of a run has gone off, or is gone, and nobody has ended the run
  kDiskFull,
  kDiskNearlyFull,
  kMemoryShort,
  kLoadHigh,
  kRebootWanted,
  kGuardArmed,  ///< the guard of a run waits for a login
  kLate,        ///< a part of the facts did not come in time
};

struct Trouble {
  TroubleKind kind = TroubleKind::kLate;
  /// For people, without numbers, so that nodes with the same trouble have the same text: "disk full:
  /// /var", "reboot wanted", "no answer about disks".
  std::string text;
};

/// The worst first; none if all is well. What the node did not tell is no trouble. `known`: the runs of
/// the journal (fleet::NamesOnNodes); null if it cannot be read.
[[nodiscard]] FLEET_API std::vector<Trouble> Troubles(
    const Facts& facts, const std::map<std::string, std::int64_t>* known = nullptr);

/// The disk with the highest used percentage; null if there is none.
[[nodiscard]] FLEET_API const Disk* FullestDisk(const Facts& facts);
/// The used percentage of the memory; null if the node did not tell.
[[nodiscard]] FLEET_API std::optional<int> MemoryPercent(const Facts& facts);
/// Seconds since the boot, when the node was asked; null if the node did not tell.
[[nodiscard]] FLEET_API std::optional<std::int64_t> Uptime(const Facts& facts);

}  // namespace fleet
