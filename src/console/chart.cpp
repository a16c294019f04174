#include "console/chart.h"

#include <algorithm>

#include "pnl/utf8.h"

namespace console {
namespace {

constexpr std::size_t kShortest = 10;  // columns of the longest bar, however narrow the terminal
constexpr std::size_t kGaps = 4;       // two on either side of it

/// Blocks of an eighth to a whole character, U+258F down to U+2588.
std::string Blocks(std::size_t eighths) {
  std::string text;
  for (; eighths >= 8; eighths -= 8) text += "\xE2\x96\x88";
  if (eighths > 0) text += {'\xE2', '\x96', static_cast<char>(0x90 - static_cast<int>(eighths))};
  return text;
}

}  // namespace

std::string Chart(const std::vector<Bar>& bars, std::size_t columns) {
  std::size_t label_width = 0;
  std::size_t number_width = 0;
  std::int64_t greatest = 1;
  for (const Bar& bar : bars) {
    label_width = std::max(label_width, utf8::Columns(utf8::Printable(bar.label)));
    number_width = std::max(number_width, std::to_string(bar.value).size());
    greatest = std::max(greatest, bar.value);
  }
  const std::size_t taken = label_width + number_width + kGaps;
  const std::size_t width = std::max(kShortest, columns > taken ? columns - taken : 0);
  std::string text;
  for (const Bar& bar : bars) {
    const double share =
        static_cast<double>(std::max<std::int64_t>(bar.value, 0)) / static_cast<double>(greatest);
    const auto eighths = static_cast<std::size_t>(share * static_cast<double>(width * 8));
    const std::string number = std::to_string(bar.value);
    const std::string label = utf8::Printable(bar.label);
    const std::string blocks = Blocks(eighths);
    text.append(label).append(utf8::Padding(label, label_width + 2));
    text.append(blocks).append(utf8::Padding(blocks, width + 2));
    text.append(utf8::Padding(number, number_width)).append(number).append("\n");
  }
  return text;
}

}  // namespace console
