#include "fleet/status.h"

#include <algorithm>

#include "brefir/str_utils.h"

namespace fleet {
namespace {

/// The mounts that are used from `from` to below `below` percent, with commas between them.
std::string Mounts(const Facts& facts, int from, int below) {
  std::string mounts;
  for (const Disk& disk : facts.disks) {
    const int percent = disk.Percent();
    if (percent >= from && percent < below) mounts = str::Append(mounts, disk.mount, ", ");
  }
  return mounts;
}

}  // namespace

const Disk* FullestDisk(const Facts& facts) {
  const auto fullest =
      std::max_element(facts.disks.begin(), facts.disks.end(),
                       [](const Disk& a, const Disk& b) { return a.Percent() < b.Percent(); });
  return fullest == facts.disks.end() ? nullptr : &*fullest;
}

std::optional<int> MemoryPercent(const Facts& facts) {
  if (!facts.memory || !facts.memory_free || *facts.memory <= 0) return std::nullopt;
  const double free = static_cast<double>(*facts.memory_free) / static_cast<double>(*facts.memory);
  return 100 - static_cast<int>(100 * std::clamp(free, 0.0, 1.0));
}

std::optional<std::int64_t> Uptime(const Facts& facts) {
  if (!facts.boot || *facts.boot < 0) return std::nullopt;
  return std::max<std::int64_t>(facts.asked - *facts.boot, 0);  // clocks may differ
}

std::vector<Trouble> Troubles(const Facts& facts,
                              const std::map<std::string, std::int64_t>* known) {
  constexpr int kAll = 101;  // percent
  std::vector<Trouble> troubles;
  const auto add = [&](TroubleKind kind, bool is, const std::string& text) {
    if (is) troubles.push_back({kind, text});
  };
  const bool foreign = known != nullptr &&
                       std::any_of(facts.runs.begin(), facts.runs.end(),
                                   [&](const std::string& run) { return !known->contains(run); });
  add(TroubleKind::kForeignRun, foreign, "a run of another panel has not ended (run salvage)");
  const auto has_guard = [&](const char* state) {
    return std::find(facts.guards.begin(), facts.guards.end(), state) != facts.guards.end();
  };
  add(TroubleKind::kGuardFired, has_guard("restored"),
      "a guard has gone off and has put its run back (run resume)");
  add(TroubleKind::kGuardFired, has_guard("fired"),
      "a guard has gone off, and has not put everything back (run resume)");
  add(TroubleKind::kGuardFired, has_guard("lost"),
      "a guard is gone, for example by a reboot (run resume)");
  const std::string full = Mounts(facts, kFullPercent, kAll);
  const std::string nearly = Mounts(facts, kNearlyFullPercent, kFullPercent);
  add(TroubleKind::kDiskFull, !full.empty(), "disk full: " + full);
  add(TroubleKind::kDiskNearlyFull, !nearly.empty(), "disk nearly full: " + nearly);
  add(TroubleKind::kMemoryShort, MemoryPercent(facts).value_or(0) > 100 - kShortPercent,
      "memory short");
  add(TroubleKind::kLoadHigh,
      facts.processors && facts.load.value_or(0) > kLoadOfProcessor * *facts.processors,
      "load high");
  add(TroubleKind::kRebootWanted, facts.reboot_wanted.value_or(false), "reboot wanted");
  add(TroubleKind::kGuardArmed, has_guard("armed"), "a guard is armed: a run is at work");
  add(TroubleKind::kLate, !facts.late.empty(), "no answer about " + str::Join(facts.late, ", "));
  return troubles;
}

}  // namespace fleet
