#pragma once

#include <string>

/// For the sources of this directory only.
namespace pnl_file {

/// Where a write to `path` ends up: symbolic links followed, the last of which may lead to nothing.
std::string LinkTarget(std::string path);

}  // namespace pnl_file
