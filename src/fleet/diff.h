#pragma once

#include <string>
#include <string_view>

#include "fleet/export.h"

namespace fleet {

/// The change from `before` to `after` as a unified diff with three lines of context, as patch(1)
/// takes it; "" when they are equal. `name` stands in both of its heading lines.
///
/// It is a shortest one as long as the texts differ in at most 2000 lines; beyond that the whole
/// differing middle is shown as replaced, so that time and memory stay bounded.
[[nodiscard]] FLEET_API std::string UnifiedDiff(std::string_view before, std::string_view after,
                                                const std::string& name);

}  // namespace fleet
