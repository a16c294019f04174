#pragma once

#include <memory>
#include <string>

#include "fleet/export.h"
#include "pnldb/db.h"

/// The database of what the panel knows of its nodes.
namespace fleet {

/// Opens the database of the setting fleet_database. Without that setting it is var/fleet.db of the
/// panel's directory for root, /var/lib/brefir/fleet.db for root without a panel's directory, and a
/// file below $XDG_STATE_HOME for other users. A missing file is made, with mode 0600, and its
/// directory, too. Throws the database's errors with a message that names the setting, and "file".
[[nodiscard]] FLEET_API std::shared_ptr<pnl_db::Cache> OpenFleetDatabase();

/// Its address for people: without user, password and parameters.
[[nodiscard]] FLEET_API std::string FleetDatabaseAddress();
/// Whether OpenFleetDatabase would not make a new file.
[[nodiscard]] FLEET_API bool HasFleetDatabase();

}  // namespace fleet
