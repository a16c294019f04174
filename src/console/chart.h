#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace console {

/// One line of a chart.
struct Bar {
  std::string label;
  std::int64_t value = 0;  ///< below 0 it has no length
};

/// Bars from left to right, a line each, in at most `columns` columns where labels and values leave
/// room for them; the longest is the greatest value.
[[nodiscard]] std::string Chart(const std::vector<Bar>& bars, std::size_t columns);

}  // namespace console
