#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fleet/export.h"

namespace fleet {

/// A problem in the header of a recipe, for its author.
struct RecipeFinding {
  enum class Severity {
    kWarning,  ///< a part is not read as intended
    kError,    ///< the recipe cannot be used
  };

  int line;  ///< from 1
  Severity severity;
  std::string fault;  ///< for people; may quote control characters of the script
};

/// The problems in the header of `script`, the whole text of a file, in the order of lines; missing
/// parts come last. A recipe can be used when no finding is an error. The text after the header is
/// not checked. Pure.
[[nodiscard]] FLEET_API std::vector<RecipeFinding> LintRecipe(std::string_view script);

}  // namespace fleet
