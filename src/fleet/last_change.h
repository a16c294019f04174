#pragma once

#include <ctime>
#include <map>
#include <string>

#include "fleet/export.h"
#include "pnldb/db.h"

/// The last change of each node by this panel.
///
///     const auto db = fleet::OpenFleetDatabase();
///     fleet::NoteChange(*db, "web1", "node write /etc/motd");
///     Show(fleet::LastChanges(*db)["web1"].what);
///
/// Both functions are thread-safe, and throw what the database throws.
namespace fleet {

struct LastChange {
  std::time_t time = 0;  ///< by the clock of the panel host that made it
  std::string what;      ///< the command in short, for people
};

/// Remembers that `what` has changed the node now. `what` must be no secret: other users of the
/// database see it. Of a longer text, the first kChangeText bytes are kept.
FLEET_API void NoteChange(pnl_db::Cache& db, const std::string& node, const std::string& what);
inline constexpr std::size_t kChangeText = 200;

/// The last change of each node, by the node's name. Of a database that this user cannot write, read
/// permission is enough.
[[nodiscard]] FLEET_API std::map<std::string, LastChange> LastChanges(pnl_db::Cache& db);

}  // namespace fleet
