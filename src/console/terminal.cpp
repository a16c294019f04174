#include "console/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "pnl/str.h"

namespace console {

bool CanDraw(int fd) {
  const char* term = std::getenv("TERM");
  return isatty(fd) != 0 && term != nullptr && std::string_view(term) != "dumb";
}

std::mutex& DrawingLock() {
  static auto& mutex = *new std::mutex();  // never destroyed, as a painter may still draw
  return mutex;
}

bool CanDraw() {
  return CanDraw(STDERR_FILENO);
}

std::string Styled(const std::string& text, const char* style, int fd) {
  const char* no_color = std::getenv("NO_COLOR");
  if (!CanDraw(fd) || (no_color != nullptr && *no_color != '\0')) return text;
  return std::string("\x1b[") + style + "m" + text + "\x1b[0m";
}

std::string StyledDiff(std::string diff, int fd) {
  std::string styled;
  while (!diff.empty()) {
    const std::string line = str::GetWord(diff, '\n');
    const char* style = line.starts_with('+') ? kGreen : line.starts_with('-') ? kRed : nullptr;
    styled += (style == nullptr ? line : Styled(line, style, fd)) + "\n";
  }
  return styled;
}

TerminalSize GetTerminalSize() {
  return GetTerminalSize(STDERR_FILENO);
}

TerminalSize GetTerminalSize(int fd) {
  winsize size{};
  if (ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) return {};
  return {size.ws_row, size.ws_col};
}

}  // namespace console
