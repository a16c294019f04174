#pragma once

#include <cstddef>

/// The terminal on standard error, where the programs draw how work goes on.
namespace tools {

/// Whether standard error is a terminal that can move its cursor.
[[nodiscard]] bool CanDraw();

struct TerminalSize {
  std::size_t rows = 24;
  std::size_t columns = 80;
};

/// Of the terminal on standard error (ioctl_tty(2)); the usual one where it does not say.
[[nodiscard]] TerminalSize GetTerminalSize();

}  // namespace tools
