#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "support/lab.h"

/// The guards of runs on a node, seen from outside of it: a command there would take longer than what
/// is to be seen.
namespace faults {

/// One that has not been taken away. Its path is lost when the node boots.
struct NodeGuard {
  std::filesystem::path dir;  ///< as this host sees it
  std::string run = {};

  [[nodiscard]] bool Stands(const std::string& state) const;  ///< "armed", "fired", "restored"
  /// The clock's time at which it was armed; null: it is gone, or began with the node.
  [[nodiscard]] std::optional<std::chrono::system_clock::time_point> Armed() const;
  /// The same for when it had put everything back.
  [[nodiscard]] std::optional<std::chrono::system_clock::time_point> Restored() const;
};

/// That of a run, or with "" that of any run, wherever it is; null: there is none, or the node is down.
std::optional<NodeGuard> FindGuard(const support::LabNode& node, const std::string& run = "");
/// Whether a process of a guard of this run is there.
bool GuardRuns(const support::LabNode& node, const std::string& run);
/// Stops the process 1 of a node, which in nodes without systemd is its SSH server, or lets it go on.
void SignalFirst(const support::LabNode& node, int signal);

/// A number from `from` to `to`.
int Random(int from, int to);

/// How long guards took, of several processes; printed as a row.
class GuardTimes {
 public:
  explicit GuardTimes(std::string row) : row_(std::move(row)) {}
  /// From the guard's second to what it has put back; nothing if that is not known.
  void Add(const NodeGuard& guard, int seconds) const;
  void Print() const;

 private:
  [[nodiscard]] std::string File() const;

  std::string row_;
};

}  // namespace faults
