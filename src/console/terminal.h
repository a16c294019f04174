#pragma once

#include <cstddef>
#include <mutex>
#include <string>

/// The terminal: size, colours, and whether the programs can draw on standard error.
namespace console {

/// Whether standard error is a terminal that can move its cursor.
[[nodiscard]] bool CanDraw();

/// Hold it while you draw, or ask something: both would overwrite each other.
[[nodiscard]] std::mutex& DrawingLock();

struct TerminalSize {
  std::size_t rows = 24;
  std::size_t columns = 80;
};

/// The size of the terminal on standard error (ioctl_tty(2)); a default when it is unknown.
[[nodiscard]] TerminalSize GetTerminalSize();

// Styles: SGR numbers of ECMA-48.
inline constexpr const char* kBold = "1";
inline constexpr const char* kRed = "31";
inline constexpr const char* kGreen = "32";

/// `text` in that style if `fd` is a terminal with styles and NO_COLOR (no-color.org) is not set.
[[nodiscard]] std::string Styled(const std::string& text, const char* style, int fd);
/// A unified diff with red and green lines.
[[nodiscard]] std::string StyledDiff(std::string diff, int fd);

}  // namespace console
