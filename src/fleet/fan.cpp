#include "fleet/fan.h"

#include <poll.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <set>
#include <utility>

#include "fleet/workers.h"
#include "pnl/log.h"

namespace fleet {
namespace {

using namespace std::chrono_literals;

pnl_log::Module log_module("fan");

constexpr auto kLoginWeight = 1s;  // so long a login counts as one that begins
constexpr int kTries = 6;          // of a login that is refused before the key exchange
constexpr auto kFirstPause = 200ms;

pnl_err::Error Late(const char* type, const char* message) {
  return pnl_err::Error(type).add_param("message", message);
}

}  // namespace

// --- Logins

/// Lets logins begin, a few at a time: key exchanges are work for both ends, and beyond some number
/// each of them only takes longer.
class Fan::Gate {
 public:
  /// Waits for its turn, but not past `deadline`; for Leave.
  Clock::time_point Enter(Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    for (auto now = Clock::now();; now = Clock::now()) {
      begun_.erase(begun_.begin(), begun_.upper_bound(now - kLoginWeight));
      if (begun_.size() < Turn::kLogins || now >= deadline) return *begun_.insert(now);
      left_.wait_until(lock, std::min(deadline, *begun_.begin() + kLoginWeight));
    }
  }

  void Leave(Clock::time_point begin) noexcept {
    const std::lock_guard guard(mutex_);
    if (const auto own = begun_.find(begin); own != begun_.end()) begun_.erase(own);
    left_.notify_one();
  }

 private:
  std::mutex mutex_;
  std::condition_variable left_;
  std::multiset<Clock::time_point> begun_;
};

Turn::Turn(Fan& fan, std::size_t index) : fan_(fan), index_(index), deadline_(fan.deadline_) {
  if (const auto span = fan.options_.node_deadline; span > 0s)
    deadline_ = std::min(deadline_, Clock::now() + span);
}

bool Turn::Stopped() const {
  const auto& stop = fan_.options_.stop;
  return Clock::now() >= deadline_ || (stop && stop->Raised());
}

pnl_rpc::SshOptions Turn::Bounded(pnl_rpc::SshOptions options) const {
  options.deadline = deadline_;
  options.stop = fan_.options_.stop;
  return options;
}

pnl_rpc::SSH Turn::TryLogIn(const pnl_rpc::SshOptions& options) const {
  const auto begin = fan_.gate_->Enter(deadline_);
  try {
    pnl_rpc::SSH ssh(options);
    login_time_ = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
    fan_.gate_->Leave(begin);
    return ssh;
  } catch (...) {
    fan_.gate_->Leave(begin);
    throw;
  }
}

pnl_rpc::SSH Turn::LogIn(pnl_rpc::SshOptions options) const {
  options = Bounded(std::move(options));
  auto pause = std::chrono::milliseconds(kFirstPause);
  for (int tries = 1;; ++tries, pause *= 2) {
    try {
      return TryLogIn(options);
    } catch (const pnl_err::Error& error) {
      if (error.param(pnl_rpc::kHungUp).empty() || tries == kTries || Stopped()) throw;
      PNL_LOG(log_module, 4, "%s; the login is tried again", error.what());
    }
    // Those that were refused together must not come together again.
    const auto spread = std::chrono::milliseconds(index_ * 37 % 100);
    pollfd stop{options.stop ? options.stop->Fd() : -1, POLLIN, 0};
    poll(&stop, 1, static_cast<int>((pause + spread).count()));
  }
}

// --- Turns

Fan::Fan(FanOptions options) : options_(std::move(options)), gate_(std::make_unique<Gate>()) {}
Fan::~Fan() = default;

/// Why the turn is over, if it is. `begun`: it has begun.
std::optional<pnl_err::Error> Fan::Over(const Turn& turn, bool begun) const {
  if (options_.stop && options_.stop->Raised())
    return Late(kInterrupted, begun ? "interrupted" : "interrupted before its turn");
  const auto now = Clock::now();
  if (now >= deadline_) {
    return Late(kDeadlinePassed, begun ? "not done before the deadline of all nodes"
                                       : "the deadline of all nodes passed before its turn");
  }
  if (now >= turn.deadline_) return Late(kDeadlinePassed, "not done before the node's deadline");
  return std::nullopt;
}

std::optional<pnl_err::Error> Fan::Do(std::size_t index, const Visitor& visit) noexcept {
  const Turn turn(*this, index);
  try {
    if (auto over = Over(turn, false)) return over;
    visit(turn);
    return std::nullopt;
  } catch (const pnl_err::Error& error) {
    auto over = Over(turn, true);
    return over ? over : error;
  } catch (const std::exception& error) {
    return pnl_err::Error("internal", "", error.what());
  }
}

Failures Fan::Visit(std::size_t count, const Visitor& visit, const FanWatch& watch) {
  if (options_.deadline > 0s) deadline_ = Clock::now() + options_.deadline;
  Failures failures(count);
  OnThreads(count, std::clamp<std::size_t>(options_.forks, 1, kMaxForks), [&](std::size_t index) {
    if (watch.begun) watch.begun(index);
    failures[index] = Do(index, visit);
    if (watch.ended) watch.ended(index, failures[index]);
  });
  return failures;
}

}  // namespace fleet
