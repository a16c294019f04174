#include "fleet/package_answer.h"

#include <algorithm>
#include <iterator>

#include "pnl/str.h"

namespace fleet {
namespace {

bool TellsFailure(const std::string& line) {
  constexpr const char* kBeginnings[] = {"E:", "Error", "error", "dpkg: error", "No match"};
  return std::any_of(std::begin(kBeginnings), std::end(kBeginnings),
                     [&](const char* beginning) { return line.starts_with(beginning); });
}

}  // namespace

std::string FailureOf(std::string output) {
  std::string reason;
  while (!output.empty()) {
    const std::string line = str::Trim(str::GetWord(output, '\n'));
    if (!reason.empty() || TellsFailure(line)) reason = str::Append(reason, line, " ");
  }
  return reason;
}

}  // namespace fleet
