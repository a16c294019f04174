#include "tools/frame/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace tools {

bool CanDraw() {
  const char* term = std::getenv("TERM");
  return isatty(STDERR_FILENO) != 0 && term != nullptr && std::string_view(term) != "dumb";
}

TerminalSize GetTerminalSize() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
    return {};
  return {size.ws_row, size.ws_col};
}

}  // namespace tools
