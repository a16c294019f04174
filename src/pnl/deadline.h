#pragma once

#include <algorithm>
#include <chrono>
#include <climits>

namespace pnl_time {

/// The end of the time that a whole sequence of waits may take, on the monotonic clock.
class Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  /// `span` from now.
  explicit Deadline(Clock::duration span) : end_(Clock::now() + span) {}
  /// The same, but no later than `latest`.
  Deadline(Clock::duration span, Clock::time_point latest)
      : end_(std::min(Clock::now() + span, latest)) {}

  bool Passed() const { return Clock::now() >= end_; }
  /// Milliseconds, rounded up, as poll(2) wants them; 0 when it has passed.
  int Left() const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now());
    return static_cast<int>(std::clamp<long long>(left.count(), 0, INT_MAX));
  }

 private:
  Clock::time_point end_;
};

}  // namespace pnl_time
