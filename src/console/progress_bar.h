#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace console {

/// The progress of long work in one line of at most `columns`: "NAME  [####      ]  41%  12.3 MiB /
/// 30.0 MiB  2.1 MiB/s". Without a bar when `total` (bytes) is 0, which means unknown, or when the
/// line is too short. `rate` is in bytes a second, 0 when unknown.
[[nodiscard]] std::string ProgressLine(std::string_view what, std::uint64_t done,
                                       std::uint64_t total, std::uint64_t rate,
                                       std::size_t columns);

/// One line on standard error that is redrawn during the work and removed afterwards. Draws nothing
/// when standard error is not a terminal.
class ProgressBar {
 public:
  explicit ProgressBar(bool enabled);
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;
  ~ProgressBar() { Clear(); }

  /// Call it for every change; it draws at most ten times a second.
  void Show(std::string_view what, std::uint64_t done, std::uint64_t total);
  void Clear();

 private:
  using Clock = std::chrono::steady_clock;

  std::uint64_t Rate(std::uint64_t done) const;

  bool enabled_;
  bool drawn_ = false;
  std::string what_;
  Clock::time_point drawn_at_;
  Clock::time_point begun_at_;  // of the work `what_`
  std::uint64_t begun_with_ = 0;
};

}  // namespace console
