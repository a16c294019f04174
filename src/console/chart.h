#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace console {

/// One line of a chart.
struct Bar {
  std::string label;
  std::int64_t value = 0;  ///< a negative value has length 0
};

/// Horizontal bars, one line each, in at most `columns` columns if labels and values leave room.
/// The greatest value has the longest bar.
[[nodiscard]] std::string Chart(const std::vector<Bar>& bars, std::size_t columns);

}  // namespace console
