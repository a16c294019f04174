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
/// A node at work costs a thread (about 100 KiB), a session (25 to 60 KiB) and one descriptor. A
/// waiting node costs nothing. More than 64 nodes at a time gain little on a near network. They help
/// on a slow one, where most of the time is waiting.
namespace fleet {

inline constexpr std::size_t kForks = 64;      ///< the default of FanOptions::forks
inline constexpr std::size_t kMaxForks = 512;  ///< half of the usual limit of descriptors

// Types of errors, with a message.
inline constexpr const char* kDeadlinePassed = "deadline";
inline constexpr const char* kInterrupted = "interrupted";

struct FanOptions {
  std::size_t forks = kForks;             ///< nodes at the same time; 1 to kMaxForks
  std::chrono::seconds node_deadline{0};  ///< for one node, from the beginning of its turn; 0: none
  std::chrono::seconds deadline{0};       ///< for all nodes, from the beginning of Visit; 0: none
  /// When the caller raises this event, running turns end within a second and no new turn begins.
  /// A thread that looks up a name may live longer: getaddrinfo(3) cannot be ended.
  std::shared_ptr<const pnl_thread::Event> stop = {};
};

class Fan;

/// The turn of one node. Use it only on the thread that calls the visitor.
class FLEET_API Turn {
 public:
  std::size_t Index() const { return index_; }

  /// Logs in. The session ends at the deadline of the turn, and when the fan is stopped. At most
  /// kLogins logins begin within a second, so that a slow login delays no other. If the server closes
  /// the connection before its banner (MaxStartups, sshd_config(5)), the login is tried again for
  /// some seconds. Throws what pnl_rpc::SSH throws.
  pnl_rpc::SSH LogIn(pnl_rpc::SshOptions options) const;
  /// When the turn is over; time_point::max(): never.
  std::chrono::steady_clock::time_point Deadline() const { return deadline_; }
  /// What the last login took, without the waiting for its turn. 0 before it.
  std::chrono::milliseconds LoginTime() const { return login_time_; }
  /// Returns `options` with the deadline and the stop event of the turn, for other connections.
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
  mutable std::chrono::milliseconds login_time_{0};
};

/// The error of each node, by its index; empty for a node that did not fail.
using Failures = std::vector<std::optional<pnl_err::Error>>;

/// Functions that are called when a turn begins and ends. Several threads call them at the same
/// time. They must not throw.
struct FanWatch {
  std::function<void(std::size_t index)> begun = {};
  std::function<void(std::size_t index, const std::optional<pnl_err::Error>& failure)> ended = {};
};

/// Use it from one thread at a time.
class FLEET_API Fan {
 public:
  explicit Fan(FanOptions options = {});
  Fan(const Fan&) = delete;
  Fan& operator=(const Fan&) = delete;
  ~Fan();

  /// The work in a node's turn. What it throws is the error of that node. After a deadline or an
  /// interruption, the error is kDeadlinePassed or kInterrupted instead.
  using Visitor = std::function<void(const Turn& turn)>;
  /// Gives each index from 0 to `count` - 1 a turn, and waits for all. Does not throw what `visit`
  /// throws.
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
