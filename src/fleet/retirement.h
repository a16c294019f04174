#pragma once

#include <string>

#include "fleet/export.h"
#include "fleet/key_login.h"
#include "fleet/node_work.h"
#include "fleet/plan.h"

/// An old key of the panel, taken away from its nodes when a rotation has brought a new one.
///
///     fleet::NodeWork work(nodes, {.changed = Tell});
///     const fleet::Retirement retirement{old_key, fleet::PublicHalf(setup.private_key)};
///     work.Visit([&](const std::string& node) {
///       return fleet::RetireKey(setup, retirement, node) ? fleet::NodeState::kRetired
///                                                         : fleet::NodeState::kAbsent;
///     });
///
/// Different nodes may be worked on by different threads. RetireKey logs in and throws what that
/// and reading the file throw, and pnl_err::Error("node", host, path), with a message, when the
/// file would not hold the present key any more: nothing is changed then.
namespace fleet {

/// What is taken away, and what must stay; as KeyOf gives them. An old key that is "", or the
/// current one, is pnl_err::Error("retirement", "key", key).
struct Retirement {
  std::string old_key;
  std::string current_key;
};

/// What would become of each node's file of authorized keys. Nothing is changed. Nodes come to the
/// state kChecked; when one fails, pnl_err::Error(kRetirementFailed) is thrown, with a message and
/// the parameter "nodes".
[[nodiscard]] FLEET_API Plan PreviewRetirement(const KeySetup& setup, const Retirement& retirement,
                                               const NodeWatch& watch);
inline constexpr const char* kRetirementFailed = "retire_keys";

/// Removes every line of the old key, and logs in again: when that fails, the file gets its old
/// content back and the error is thrown. False when the key was not there. The file is replaced as
/// a whole, and lines that others add meanwhile stay; whoever calls this holds the lock on the
/// private key (LockKeys). What cannot be replaced is pnl_err::Error("node", host, path).
FLEET_API bool RetireKey(const KeySetup& setup, const Retirement& retirement,
                         const std::string& node);

}  // namespace fleet
