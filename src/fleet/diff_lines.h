#pragma once

#include <string_view>
#include <vector>

/// For the sources of this directory only.
namespace fleet {

/// A line of two texts: kept (in both), removed or added. It has its line end, if there is one.
struct LineEdit {
  char sign;  ///< ' ', '-', '+'
  std::string_view line;
};

/// All lines of both texts, which must outlive the result. The shortest edit, as UnifiedDiff says.
[[nodiscard]] std::vector<LineEdit> CompareLines(std::string_view before, std::string_view after);

}  // namespace fleet
