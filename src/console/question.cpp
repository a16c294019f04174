#include "console/question.h"

#include <unistd.h>

#include <cstdio>

#include "pnl/file.h"
#include "pnl/str.h"

namespace console {

bool CanAsk() {
  return isatty(STDIN_FILENO) != 0 && isatty(STDERR_FILENO) != 0;
}

bool Agrees(const std::string& question) {
  std::fputs((question + " [y/N] ").c_str(), stderr);
  char line[64];
  const std::size_t size = pnl_file::ReadSome(STDIN_FILENO, line, sizeof line, "standard input");
  if (size == 0) std::fputs("\n", stderr);
  const std::string answer = str::Trim(std::string(line, size));
  return answer == "y" || answer == "Y" || answer == "yes";
}

}  // namespace console
