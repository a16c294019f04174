#pragma once

#include <string>
#include <vector>

#include "fleet/export.h"
#include "pnl/ssh.h"

/// How people name nodes. Any thread may call these.
namespace fleet {

/// The type of the errors about a name: pnl_err::Error(kNodeName, "", word), with a message.
inline constexpr const char* kNodeName = "node_name";

/// "[USER@]HOST[:PORT]" as user, host and port; an IPv6 address stands in brackets where a port
/// follows. Anything else is kNodeName.
[[nodiscard]] FLEET_API pnl_rpc::SshOptions ParseNode(const std::string& text);

/// The words in the file `path` when there is one, a line each ("#" begins a comment), else those in
/// `word`, with commas between them; as they stand there. Throws "file".
[[nodiscard]] FLEET_API std::vector<std::string> NodesNamed(const std::string& word,
                                                            const std::string& path);
/// The same where keys go to: at least one, each once, and each an address that a shell reads as
/// itself, without user or port, an IPv6 one without brackets. Else kNodeName.
[[nodiscard]] FLEET_API std::vector<std::string> AddressesNamed(const std::string& word,
                                                                const std::string& path);

}  // namespace fleet
