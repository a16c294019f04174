#pragma once

#include <cstddef>
#include <mutex>
#include <string>

/// The terminal: size, colours, and whether the programs can draw on it.
namespace console {

/// Whether `fd` is a terminal that can move its cursor; standard error unless named.
[[nodiscard]] bool CanDraw();
[[nodiscard]] bool CanDraw(int fd);

/// Hold it while you draw, or ask something: both would overwrite each other.
[[nodiscard]] std::mutex& DrawingLock();

struct TerminalSize {
  std::size_t rows = 24;
  std::size_t columns = 80;
};

/// The size of the terminal on `fd` (ioctl_tty(2)), or standard error; a default when it is unknown.
[[nodiscard]] TerminalSize GetTerminalSize();
[[nodiscard]] TerminalSize GetTerminalSize(int fd);

// Styles: SGR numbers of ECMA-48.
inline constexpr const char* kBold = "1";
inline constexpr const char* kRed = "31";
inline constexpr const char* kGreen = "32";

/// `text` in that style if `fd` is a terminal with styles and NO_COLOR (no-color.org) is not set.
[[nodiscard]] std::string Styled(const std::string& text, const char* style, int fd);
/// A unified diff with red and green lines.
[[nodiscard]] std::string StyledDiff(std::string diff, int fd);

}  // namespace console
