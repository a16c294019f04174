#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fleet/export.h"

namespace fleet {

/// What is wrong with the header of a recipe, for whoever writes it.
struct RecipeFinding {
  enum class Severity {
    kWarning,  ///< not all is taken as it is meant
    kError,    ///< the recipe cannot be used
  };

  int line;  ///< the first of the script is 1
  Severity severity;
  std::string fault;  ///< for people; it may quote the script, control characters and all
};

/// What the parser of recipes would not take as it is meant in `script`, the whole text of a file;
/// in the order in which it shows, what is missing at the end. A recipe can be used when no finding
/// is an error. Nothing behind the header is looked at. Any thread may call it.
[[nodiscard]] FLEET_API std::vector<RecipeFinding> LintRecipe(std::string_view script);

}  // namespace fleet
