#include "faults/guard_node.h"

#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "pnl/str.h"

namespace faults {
namespace {

namespace fs = std::filesystem;
using Time = std::chrono::system_clock::time_point;

/// The number of its process 1 on this host; 0 while it is down.
pid_t FirstOf(const support::LabNode& node) {
  pid_t pid = 0;
  std::ifstream(node.Root().parent_path() / "pid") >> pid;
  return pid;
}

/// Its files as its processes see them, with /run and /proc.
fs::path InsideOf(const support::LabNode& node) {
  return "/proc/" + std::to_string(FirstOf(node)) + "/root";
}

Time TimeOf(const timespec& time) {
  return Time(std::chrono::duration_cast<Time::duration>(std::chrono::seconds(time.tv_sec) +
                                                         std::chrono::nanoseconds(time.tv_nsec)));
}

std::optional<struct stat> StatOf(const fs::path& path) {
  struct stat found {};
  if (stat(path.c_str(), &found) != 0) return std::nullopt;
  return found;
}

constexpr const char* kGuard = "guard-";

}  // namespace

bool NodeGuard::Stands(const std::string& state) const {
  return StatOf(dir / state).has_value();
}

/// The script is written last before the guard reads the clock.
std::optional<Time> NodeGuard::Armed() const {
  const auto script = StatOf(dir / "brefir-run");
  if (!script) return std::nullopt;
  return TimeOf(script->st_mtim);
}

std::optional<Time> NodeGuard::Restored() const {
  const auto token = StatOf(dir / "restored");
  if (!token) return std::nullopt;
  return TimeOf(token->st_ctim);  // of the rename
}

std::optional<NodeGuard> FindGuard(const support::LabNode& node, const std::string& run) {
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator(InsideOf(node) / "run/brefir", gone)) {
    const std::string name = entry.path().filename();
    if (name.starts_with(kGuard) && (run.empty() || name == kGuard + run))
      return NodeGuard{entry.path(), name.substr(std::string(kGuard).size())};
  }
  return std::nullopt;
}

bool GuardRuns(const support::LabNode& node, const std::string& run) {
  std::error_code gone;
  for (const auto& process : fs::directory_iterator(InsideOf(node) / "proc", gone)) {
    std::ifstream file(process.path() / "cmdline");
    std::string line;
    std::getline(file, line);  // fails, but does not throw, if it ends meanwhile
    if (line.find(kGuard + run + "/") != std::string::npos) return true;
  }
  return false;
}

void SignalFirst(const support::LabNode& node, int signal) {
  if (const pid_t pid = FirstOf(node); pid != 0) kill(pid, signal);
}

int Random(int from, int to) {
  static thread_local std::mt19937 generator(std::random_device{}());
  return std::uniform_int_distribution<int>(from, to)(generator);
}

// --- GuardTimes

std::string GuardTimes::File() const {
  return "/panel/" + str::Replace(row_, " ", "-");
}

void GuardTimes::Add(const NodeGuard& guard, int seconds) const {
  const auto armed = guard.Armed();
  const auto restored = guard.Restored();
  if (!armed || !restored) return;
  const auto late = *restored - *armed - std::chrono::seconds(seconds);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(late).count();
  std::ofstream(File(), std::ios::app) << std::to_string(ms) + "\n";
}

void GuardTimes::Print() const {
  std::ifstream file(File());
  std::vector<int> times{std::istream_iterator<int>(file), {}};
  std::sort(times.begin(), times.end());
  if (times.empty()) return;
  std::printf("%-44s %7zu  median %d ms, worst %d ms\n", row_.c_str(), times.size(),
              times[times.size() / 2], times.back());
  std::fflush(stdout);
}

}  // namespace faults
