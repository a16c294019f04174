#pragma once

#include <string>

#include "fleet/export.h"

/// Finds the panel's directory.
namespace fleet {

/// Whether the working directory is a panel's directory: it has etc or var.
[[nodiscard]] FLEET_API bool IsPanelDir();

/// The panel's directory for a program without --prefix: $BREFIR_PREFIX; else the working directory
/// if it is a panel's; else the setting "prefix" of /etc/brefir.conf; else "". A setting that is
/// not an absolute path throws pnl_err::Error("usage", "prefix", path) with a message.
[[nodiscard]] FLEET_API std::string DefaultPrefix();

}  // namespace fleet
