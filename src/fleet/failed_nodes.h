#pragma once

#include <string>
#include <vector>

#include "fleet/export.h"

/// The nodes that failed in this user's last command on several nodes: "@failed" in a selection.
/// Thread-safe.
namespace fleet {

/// Their names; none if nothing failed. Throws "file".
[[nodiscard]] FLEET_API std::vector<std::string> FailedNodes();

/// Stores the names, for the next command. Throws "file".
FLEET_API void KeepFailedNodes(const std::vector<std::string>& names);

}  // namespace fleet
