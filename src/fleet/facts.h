#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/export.h"
#include "pnl/host.h"

/// What a host is and how it does, asked for by one command.
///
///     pnl_host::Host host{pnl_rpc::SSH(options)};
///     const fleet::Facts facts = fleet::AskFacts(host);
///     Show(facts.os, facts.kernel);
///
/// All functions are thread-safe.
namespace fleet {

/// A mounted file system on a device of the host.
struct Disk {
  std::string device;     ///< "/dev/sda1"; another word for a root without one ("overlay")
  std::string mount;      ///< the directory where it is mounted
  std::int64_t size = 0;  ///< bytes
  std::int64_t used = 0;  ///< bytes
  std::int64_t free = 0;  ///< bytes that users other than root can still use
  /// Used percentage of what users can use, rounded up, as df(1) shows it.
  FLEET_API int Percent() const;
};

/// Facts that the host did not tell are empty.
struct FLEET_API Facts {
  std::time_t asked = 0;  ///< when the host was asked, by the clock of this host
  std::string hostname;
  std::string arch;    ///< as uname(1) -m prints it: "x86_64"
  std::string kernel;  ///< its release, as uname(1) -r prints it
  std::optional<std::time_t> boot;
  std::optional<double> load;  ///< average of the last minute, proc_loadavg(5)

  /// An ssh_utils::os_info::OsType. It and `version` are what os_info::Type and os_info::Version
  /// say. Only where these say nothing (and for Ubuntu, whose version os_info::Version takes from
  /// this host), `version` is from the files of the node: lsb-release, os-release(5).
  int type = 0;
  std::string version;
  std::string os;  ///< name and version for people: "Debian 12.5", "Gentoo 2.14"

  std::optional<int> processors;
  std::optional<std::int64_t> memory;       ///< bytes
  std::optional<std::int64_t> memory_free;  ///< bytes that programs can still get without swapping
  std::vector<Disk> disks;  ///< each device once; without read-only images (loop devices)
  std::vector<std::string> addresses;  ///< IPv4 and IPv6, without loopback and link-local ones
  std::string package_manager;         ///< "apt", "dnf", "yum", "zypper", "apk", "emerge", "pacman"
  std::optional<bool> reboot_wanted;
  std::optional<int>
      updates;  ///< packages that could be updated; only if asked for, here or before
  std::optional<std::time_t> updates_asked;  ///< when that was
  std::string panel_version;                 ///< of the panel on that host; "" if there is none
  std::vector<std::string> runs;  ///< that have left kept copies there, as Sight::runs names them
  /// How the guards of these runs stand: "armed", "lost", "fired", "restored" (fleet::GuardState).
  std::vector<std::string> guards;

  /// The parts that did not answer in time: "version", "disks", "reboot_wanted", "updates",
  /// "panel_version".
  std::vector<std::string> late;

  std::string
      reply;  ///< the host's own words, for ParseFacts: valid UTF-8, at most kMaxFacts bytes
};

inline constexpr std::size_t kMaxFacts = 65536;  ///< bytes

inline constexpr int kFactsTime = 5;     ///< seconds, for the parts that may hang
inline constexpr int kUpdatesTime = 60;  ///< seconds

struct FactsQuestion {
  bool updates = false;  ///< also count the updates, which takes seconds
};

/// Asks by one command, which takes at most kFactsTime seconds (with updates kUpdatesTime more):
/// parts that do not answer in time are left out and ended. Throws what pnl_host::Host throws, and
/// pnl_err::Error("facts", host) with a message if the answer is no answer of the command.
[[nodiscard]] FLEET_API Facts AskFacts(pnl_host::Host& host, const FactsQuestion& question = {});

/// The facts of a Facts::reply of the time `asked`. Any text is possible; what it does not tell is
/// empty.
[[nodiscard]] FLEET_API Facts ParseFacts(std::string_view reply, std::time_t asked);

}  // namespace fleet
