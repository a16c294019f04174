#include "fleet/run_owner.h"

#include <signal.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <tuple>

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/str.h"

namespace fleet {
namespace {

std::string HostName() {
  utsname names{};
  uname(&names);
  return names.nodename;
}

/// The first word of a file; "" when it cannot be read.
std::string WordOf(const std::string& path) {
  try {
    return str::Trim(pnl_file::Read(path));
  } catch (const pnl_err::Error&) {
    return "";
  }
}

constexpr std::int64_t kHidden = -1;

/// When a process of this host began, in clock ticks since the host has booted: a pid alone may
/// belong to another process meanwhile. Null without such a process; kHidden where /proc does not
/// show processes of other users.
std::optional<std::int64_t> StartOf(std::int64_t pid) {
  constexpr int kWordsBefore = 19;  // between the state and the start
  if (kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) return std::nullopt;
  std::string text = WordOf("/proc/" + std::to_string(pid) + "/stat");
  if (text.empty()) return kHidden;
  std::string_view words = text;
  words.remove_prefix(words.rfind(')') + 1);  // the name before it may have any characters
  if (str::NextWord(words) == "Z") return std::nullopt;
  for (int i = 1; i < kWordsBefore; ++i) str::NextWord(words);
  return str::Int64(str::NextWord(words));
}

}  // namespace

void BecomeOwner(RunHead& run) {
  run.owner = getpid();
  run.owner_start = StartOf(run.owner).value_or(kHidden);
  run.owner_host = HostName();
  run.owner_machine = WordOf("/etc/machine-id");
  run.boot = WordOf("/proc/sys/kernel/random/boot_id");
}

bool IsOwn(const RunHead& run) {
  RunHead here;
  BecomeOwner(here);
  const auto words = [](const RunHead& head) {
    return std::tie(head.owner, head.owner_start, head.owner_host, head.owner_machine, head.boot);
  };
  return words(run) == words(here);
}

OwnerLife LifeOfOwner(const RunHead& run) {
  RunHead here;
  BecomeOwner(here);
  // Hosts without a name of their own are told apart by the machine-id.
  if (run.owner_host != here.owner_host || run.owner_machine != here.owner_machine)
    return OwnerLife::kUnseen;
  if (run.boot != here.boot || run.owner == here.owner) return OwnerLife::kOver;
  const auto start = StartOf(run.owner);
  const bool same = start && (*start == run.owner_start || *start == kHidden);
  return same ? OwnerLife::kLives : OwnerLife::kOver;
}

}  // namespace fleet
