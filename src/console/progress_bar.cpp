#include "console/progress_bar.h"

#include <algorithm>
#include <cstdio>

#include "console/record.h"
#include "console/terminal.h"
#include "pnl/str.h"
#include "pnl/utf8.h"

namespace console {
namespace {

constexpr std::size_t kBar = 20;      // cells
constexpr std::size_t kMinName = 12;  // least columns of the name when there is a bar
constexpr auto kInterval = std::chrono::milliseconds(100);

std::string Bar(double share) {
  const auto full = static_cast<std::size_t>(share * kBar);
  return "[" + std::string(full, '#') + std::string(kBar - full, ' ') + "]";
}

}  // namespace

std::string ProgressLine(std::string_view what, std::uint64_t done, std::uint64_t total,
                         std::uint64_t rate, std::size_t columns) {
  std::string state = done == 0 && total == 0 ? "..." : SizeText(done);
  std::string bar;
  if (total > 0) {
    const double share = static_cast<double>(std::min(done, total)) / static_cast<double>(total);
    state = str::Format("%3d%%  ", static_cast<int>(share * 100)) + state + " / " + SizeText(total);
    bar = Bar(share) + "  ";
  }
  if (rate > 0) state += "  " + SizeText(rate) + "/s";
  if (columns < kMinName + 2 + bar.size() + state.size()) bar.clear();
  const std::size_t room =
      columns > bar.size() + state.size() + 2 ? columns - bar.size() - state.size() - 2 : 0;
  const std::string name = utf8::Printable(what);
  return std::string(
      utf8::Fitting(std::string(utf8::Fitting(name, room)) + "  " + bar + state, columns));
}

ProgressBar::ProgressBar(bool enabled) : enabled_(enabled && CanDraw()) {}

void ProgressBar::Show(std::string_view what, std::uint64_t done, std::uint64_t total) {
  if (!enabled_) return;
  const Clock::time_point now = Clock::now();
  if (what != what_) {
    what_ = what;
    begun_at_ = now;
    begun_with_ = done;
  } else if (drawn_ && now - drawn_at_ < kInterval && done != total) {
    return;
  }
  drawn_at_ = now;
  drawn_ = true;
  // One column stays free: some terminals wrap after the last column.
  const std::string line =
      "\r" + ProgressLine(what, done, total, Rate(done), GetTerminalSize().columns - 1) + "\x1b[K";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

void ProgressBar::Clear() {
  if (drawn_) std::fputs("\r\x1b[K", stderr);
  drawn_ = false;
}

std::uint64_t ProgressBar::Rate(std::uint64_t done) const {
  const double seconds = std::chrono::duration<double>(drawn_at_ - begun_at_).count();
  if (seconds < 1 || done < begun_with_) return 0;  // too early to tell
  return static_cast<std::uint64_t>(static_cast<double>(done - begun_with_) / seconds);
}

}  // namespace console
