#pragma once

#include <string_view>

#include "fleet/export.h"

/// Modes of files in the words of chmod(1). Pure functions.
namespace fleet {

/// Whether `mode` is octal digits ("0644") or symbolic ("u+x,go=rX").
[[nodiscard]] FLEET_API bool IsMode(std::string_view mode);

/// The mode that `now` becomes. Without "u", "g", "o" or "a", all three are meant. Throws
/// std::invalid_argument unless IsMode.
[[nodiscard]] FLEET_API unsigned ChangedMode(std::string_view mode, unsigned now,
                                             bool is_directory);

}  // namespace fleet
