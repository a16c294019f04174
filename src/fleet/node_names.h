#pragma once

#include <string>
#include <vector>

#include "fleet/export.h"
#include "fleet/inventory.h"
#include "pnl/ssh.h"

/// Parses the names that people write for nodes. Thread-safe.
namespace fleet {

/// The type of errors about a name: pnl_err::Error(kNodeName, "", word) with a message.
inline constexpr const char* kNodeName = "node_name";

/// Parses "[USER@]HOST[:PORT]"; an IPv6 address with a port is written in brackets. Anything else
/// throws kNodeName.
[[nodiscard]] FLEET_API pnl_rpc::SshOptions ParseNode(const std::string& text);

/// The addresses of nodes, for the distribution of keys: its ssh command lines have no place for a
/// user, a port or a key. There must be at least one node. Throws kNodeName for a node that has such
/// a setting, or whose host is not safe as a shell word.
[[nodiscard]] FLEET_API std::vector<std::string> KeyAddresses(const std::vector<Node>& nodes);

}  // namespace fleet
