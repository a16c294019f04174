#pragma once

#include <string>

#include "fleet/export.h"
#include "fleet/key_login.h"
#include "fleet/node_work.h"
#include "fleet/plan.h"

/// Removes an old key of the panel from its nodes after a rotation.
///
///     fleet::NodeWork work(nodes, {.changed = Tell});
///     const fleet::Retirement retirement{old_key, fleet::PublicHalf(setup.private_key)};
///     work.Visit([&](const std::string& node) {
///       return fleet::RetireKey(setup, retirement, node) ? fleet::NodeState::kRetired
///                                                         : fleet::NodeState::kAbsent;
///     });
///
/// Different threads may work on different nodes. RetireKey logs in; it throws what the login and
/// reading the file throw. When the file would no longer have the current key, it throws
/// pnl_err::Error("node", host, path) with a message and changes nothing.
namespace fleet {

/// The key to remove and the key that must stay, in the form of KeyOf. An old key that is "" or the
/// current key throws pnl_err::Error("retirement", "key", key).
struct Retirement {
  std::string old_key;
  std::string current_key;
};

/// The change of each node's file of authorized keys; nothing is changed. Nodes reach the state
/// kChecked. When a node fails, throws pnl_err::Error(kRetirementFailed) with a message and the
/// parameter "nodes".
[[nodiscard]] FLEET_API Plan PreviewRetirement(const KeySetup& setup, const Retirement& retirement,
                                               const NodeWatch& watch);
inline constexpr const char* kRetirementFailed = "retire_keys";

/// Removes every line of the old key, then logs in again. When that login fails, restores the file
/// and throws the error. Returns false when the key was not there. The file is replaced by atomic
/// rename; lines that others add meanwhile stay. The caller must hold the lock on the private key
/// (LockKeys). A file that cannot be replaced is pnl_err::Error("node", host, path).
FLEET_API bool RetireKey(const KeySetup& setup, const Retirement& retirement,
                         const std::string& node);

}  // namespace fleet
