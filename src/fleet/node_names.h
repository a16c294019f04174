#pragma once

#include <string>
#include <vector>

#include "fleet/export.h"
#include "pnl/ssh.h"

/// Parses the names that people write for nodes. Thread-safe.
namespace fleet {

/// The type of errors about a name: pnl_err::Error(kNodeName, "", word) with a message.
inline constexpr const char* kNodeName = "node_name";

/// Parses "[USER@]HOST[:PORT]"; an IPv6 address with a port is written in brackets. Anything else
/// throws kNodeName.
[[nodiscard]] FLEET_API pnl_rpc::SshOptions ParseNode(const std::string& text);

/// The names of nodes in `word`: when a file of that path exists, its lines ("#" begins a comment);
/// otherwise the parts of `word` between commas. They are not checked. Throws "file".
[[nodiscard]] FLEET_API std::vector<std::string> NodesNamed(const std::string& word,
                                                            const std::string& path);
/// The same for the distribution of keys. There must be at least one and no duplicates. Each must
/// be an address without user and port, safe as a shell word, and an IPv6 address must have no
/// brackets. Otherwise throws kNodeName.
[[nodiscard]] FLEET_API std::vector<std::string> AddressesNamed(const std::string& word,
                                                                const std::string& path);

}  // namespace fleet
