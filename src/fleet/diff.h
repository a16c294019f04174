#pragma once

#include <string>
#include <string_view>

#include "fleet/export.h"

namespace fleet {

/// The change from `before` to `after` as a unified diff for patch(1), with three lines of context;
/// "" when they are equal. Both heading lines have `name`.
///
/// The diff is the shortest possible when the texts differ in at most 2000 lines. Otherwise the
/// whole part between the first and last difference is shown as replaced, to limit time and memory.
[[nodiscard]] FLEET_API std::string UnifiedDiff(std::string_view before, std::string_view after,
                                                const std::string& name);

}  // namespace fleet
