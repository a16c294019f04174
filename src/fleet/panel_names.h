#pragma once

#include <string>
#include <vector>

#include "fleet/export.h"
#include "pnl/str.h"

/// The names of what a panel has, as completion offers them: from lists and directories only,
/// without a download.
namespace fleet {

/// How a panel, whose directory is the working directory, is looked at.
struct FLEET_API PanelView {
  std::string template_dir;  ///< of installed templates
  std::string recipe_dir;
  std::string module_name;  ///< whose templates
  std::string module_version;
  std::vector<std::string> keys = {};  ///< for "macros": of which templates, where installed
};

/// Of "templates", "installed" ones, "macros", "repositories", "recipes", "tasks", "listen"
/// addresses and "nodes" of the settings; of another list std::out_of_range. Throws what reading
/// throws. For any thread.
[[nodiscard]] FLEET_API StringSet PanelNames(const std::string& list, const PanelView& panel);

}  // namespace fleet
