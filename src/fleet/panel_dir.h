#pragma once

#include <string>

#include "fleet/export.h"

/// Which directory is the panel's.
namespace fleet {

/// Whether the working directory is a panel's: it has etc or var.
[[nodiscard]] FLEET_API bool IsPanelDir();

/// The panel's directory for a program that is not told: that of $BREFIR_PREFIX, else the working
/// directory where that is one, else that of the setting "prefix" in /etc/brefir.conf, else "". A
/// setting that is no absolute path is pnl_err::Error("usage", "prefix", path), with a message.
[[nodiscard]] FLEET_API std::string DefaultPrefix();

}  // namespace fleet
