#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fleet/edits.h"
#include "fleet/export.h"
#include "fleet/journal.h"
#include "fleet/key_pair.h"
#include "fleet/run.h"

/// The rotation of the panel's key, as runs: one adds a new key on all nodes, proves it there by a fresh
/// login with no other key, and puts the new pair in place here; another one, later, retires the old key
/// (RetireKeyEdit).
///
///     fleet::KeyChange key{.private_key = "/opt/panel/etc/panel.key",
///                          .public_key = "/opt/panel/etc/panel.key.pub"};
///     const pnl_file::Lock lock = fleet::LockKey(key.private_key);
///     fleet::Journal journal(fleet::OpenFleetDatabase());
///     fleet::RequireNoOpenRotation(journal, key.private_key);
///     key = fleet::MakeNextPair(key, fleet::KeyType::kEd25519);
///     fleet::Run run(&journal, {{"web1", options}}, {.command = "rotation", .key = key});
///     run.Plan({fleet::NewKeyEdit("root", key)});
///     fleet::RunReport report = run.Make();
///
/// Until the commit the pair here is the old one, and nodes that have the new key accept both. All nodes
/// accept the old key until it is retired, so the run can be undone until then.
namespace fleet {

/// The edit that adds the new key to the user's authorized keys.
[[nodiscard]] FLEET_API Edit NewKeyEdit(const std::string& user, const KeyChange& key);

/// Throws kRunBusy, with a message that names nodes and run, while a rotation of this key is unfinished, or
/// nodes are owed its new key (RunOptions::allow_owed).
FLEET_API void RequireNoOpenRotation(const Journal& journal, const std::string& private_key);

/// A key of the panel, as far as the books know.
struct PanelKey {
  std::string key;        ///< in the form of KeyOf
  std::string line;       ///< as in its .pub file
  std::string file = {};  ///< of the private key; "": it is not here any more
  bool present = false;   ///< whether the panel logs in with it
  std::int64_t run = 0;   ///< that added it; 0: unknown
  std::time_t since = 0;  ///< when that was committed, or when the file was made; 0: unknown
  std::vector<std::string> nodes = {};  ///< that accept it
  std::vector<std::string> owed = {};   ///< that are owed it
};
/// The present key first, then the newest. Keys that no file here and no node has any more are left out.
[[nodiscard]] FLEET_API std::vector<PanelKey> PanelKeys(const Journal& journal,
                                                        const KeyChange& present);

}  // namespace fleet
