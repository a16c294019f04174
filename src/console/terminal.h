#pragma once

#include <cstddef>
#include <string>

/// The terminal: what the programs draw on standard error while work goes on, and colours.
namespace console {

/// Whether standard error is a terminal that can move its cursor.
[[nodiscard]] bool CanDraw();

struct TerminalSize {
  std::size_t rows = 24;
  std::size_t columns = 80;
};

/// Of the terminal on standard error (ioctl_tty(2)); the usual one where it does not say.
[[nodiscard]] TerminalSize GetTerminalSize();

// Styles, as SGR of ECMA-48 numbers them.
inline constexpr const char* kBold = "1";
inline constexpr const char* kRed = "31";
inline constexpr const char* kGreen = "32";

/// `text` in that style when `fd` is a terminal that has some; not with NO_COLOR (no-color.org).
[[nodiscard]] std::string Styled(const std::string& text, const char* style, int fd);
/// A unified diff, its lines red and green.
[[nodiscard]] std::string StyledDiff(std::string diff, int fd);

}  // namespace console
