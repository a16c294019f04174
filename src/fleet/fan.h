#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "pnl/err.h"
#include "pnl/ssh.h"
#include "pnl/thread.h"

/// The same work on many nodes at the same time.
///
///     const auto web = fleet::Select(fleet::Inventory::Load("etc/nodes"), "@web");
///     std::vector<std::string> answers(web.size());
///     fleet::Fan fan({.node_deadline = std::chrono::seconds(60)});
///     const fleet::Failures failures = fan.Visit(web.size(), [&](const fleet::Turn& turn) {
///       pnl_rpc::SSH ssh = turn.LogIn(web[turn.Index()].Login({.key_file = key}));
///       answers[turn.Index()] = ssh.Execute("uptime").Str();
///     });
///
/// A node at work costs a thread (about 100 KiB), a session (25 to 60 KiB) and one descriptor; a
/// node that waits costs nothing. So there are never more than kMaxForks of them. More than 64 gain
/// little on a near network; on a far one, where a node mostly waits for the link, they do.
namespace fleet {

inline constexpr std::size_t kForks = 64;      ///< nodes at a time, when nobody says otherwise
inline constexpr std::size_t kMaxForks = 512;  ///< leaves half of the usual limit of descriptors

// Types of errors: pnl_err::Error(kDeadlinePassed, node), with a message.
inline constexpr const char* kDeadlinePassed = "deadline";
inline constexpr const char* kInterrupted = "interrupted";

struct FanOptions {
  std::size_t forks = kForks;             ///< nodes worked on at the same time; 1 to kMaxForks
  std::chrono::seconds node_deadline{0};  ///< for a node, once its turn has come; 0: none
  std::chrono::seconds deadline{0};       ///< for all, from the begin of Visit; 0: none
  /// Raised by the caller: what is under way ends within a second, what has not begun does not
  /// begin. A thread that looks up a name may live on (getaddrinfo(3) cannot be ended).
  std::shared_ptr<const pnl_thread::Event> stop = {};
};

class Fan;

/// A node's turn. Only for the thread that was given it.
class FLEET_API Turn {
 public:
  std::size_t Index() const { return index_; }

  /// A session that ends with the turn's deadline and when all is stopped. Logins begin at most
  /// kLogins at a time, but one that takes longer than a second holds up nobody. A server that
  /// hangs up before the key exchange (MaxStartups, sshd_config(5)) is asked again for some
  /// seconds. Throws what pnl_rpc::SSH throws.
  pnl_rpc::SSH LogIn(pnl_rpc::SshOptions options) const;
  /// `options` with the turn's deadline and stop, for other ways to connect.
  pnl_rpc::SshOptions Bounded(pnl_rpc::SshOptions options) const;

  static constexpr std::size_t kLogins = 32;

 private:
  friend class Fan;
  using Clock = std::chrono::steady_clock;
  Turn(Fan& fan, std::size_t index);
  pnl_rpc::SSH TryLogIn(const pnl_rpc::SshOptions& options) const;
  bool Stopped() const;

  Fan& fan_;
  std::size_t index_;
  Clock::time_point deadline_;
};

/// Why each node failed, by its index; nothing where it did not.
using Failures = std::vector<std::optional<pnl_err::Error>>;

/// Told when a turn begins, and when it is over. Several threads call it; it must not throw.
struct FanWatch {
  std::function<void(std::size_t index)> begun = {};
  std::function<void(std::size_t index, const std::optional<pnl_err::Error>& failure)> ended = {};
};

/// One Visit at a time.
class FLEET_API Fan {
 public:
  explicit Fan(FanOptions options = {});
  Fan(const Fan&) = delete;
  Fan& operator=(const Fan&) = delete;
  ~Fan();

  /// What is done in a node's turn; what it throws is the node's failure. One that ends late for
  /// the deadline or an interruption is kDeadlinePassed or kInterrupted, whatever it threw.
  using Visitor = std::function<void(const Turn& turn)>;
  /// Gives 0 to `count` - 1 a turn each, and waits for all. Throws nothing that `visit` throws.
  Failures Visit(std::size_t count, const Visitor& visit, const FanWatch& watch = {});

 private:
  friend class Turn;
  class FLEET_LOCAL Gate;
  using Clock = std::chrono::steady_clock;
  std::optional<pnl_err::Error> Do(std::size_t index, const Visitor& visit) noexcept;
  std::optional<pnl_err::Error> Over(const Turn& turn, bool begun) const;

  const FanOptions options_;
  Clock::time_point deadline_ = Clock::time_point::max();
  std::unique_ptr<Gate> gate_;
};

}  // namespace fleet
