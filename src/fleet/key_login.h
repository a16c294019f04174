#pragma once

#include <string>
#include <vector>

#include "fleet/export.h"
#include "pnl/ssh.h"

/// The panel's key pair, and the nodes that it logs in to as root on port 22.
namespace fleet {

/// Nodes and keys; paths may be relative.
struct KeySetup {
  std::vector<std::string> nodes;  ///< names or addresses, an IPv6 one without brackets; each once
  std::string public_key;          ///< path of the public half
  std::string private_key;         ///< path of a private key without a pass phrase
  std::string known_hosts = {};    ///< path; "": root's own
  bool accept_new = false;         ///< whether a node with an unknown host key is let through
  int timeout = 0;                 ///< seconds without a sign of life; 0: 30 to connect, then 60
};

/// A session of its own, with that key and no other: never one that was opened before. Throws what
/// pnl_rpc::SSH throws.
[[nodiscard]] FLEET_API pnl_rpc::SSH LogIn(const KeySetup& setup, const std::string& node,
                                           const std::string& private_key);

inline constexpr const char* kUnusableKey = "private_key";  ///< a type of errors

/// The public half of the private key in the file `path`, as KeyOf gives it, whatever a .pub file
/// beside it says. Throws pnl_err::Error(kUnusableKey, "", path), with a message, when it is no
/// private key, or has a pass phrase.
[[nodiscard]] FLEET_API std::string PublicHalf(const std::string& path);
/// The same of a private key file's text; "" when it is none, or has a pass phrase.
[[nodiscard]] FLEET_API std::string PublicHalfOf(const std::string& text);

}  // namespace fleet
