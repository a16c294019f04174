#pragma once

#include <string>
#include <vector>

#include "fleet/export.h"
#include "pnl/str.h"

/// The names of a panel's templates, recipes and other items, for completion. Reads only lists and
/// directories; never downloads.
namespace fleet {

/// The parameters of PanelNames. The working directory must be the panel's directory.
struct FLEET_API PanelView {
  std::string template_dir;  ///< of installed templates
  std::string recipe_dir;
  std::string module_name;  ///< the panel module whose templates count
  std::string module_version;
  std::vector<std::string> keys = {};  ///< for "macros": the templates
};

/// The names in `list`: "templates", "installed" (templates), "macros", "repositories", "recipes",
/// "tasks", "listen" (addresses), "nodes" (of the inventory), "selections" (of nodes) or "runs" (IDs).
/// Another list throws std::out_of_range. Throws what reading throws. Thread-safe.
[[nodiscard]] FLEET_API StringSet PanelNames(const std::string& list, const PanelView& panel);

}  // namespace fleet
