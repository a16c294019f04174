#pragma once

#include <string>
#include <vector>

#include "fleet/export.h"
#include "pnl/ssh.h"

/// The panel's key pair, and the nodes that accept it for root on port 22.
namespace fleet {

/// Nodes and keys; paths may be relative.
struct KeySetup {
  std::vector<std::string> nodes;  ///< names or addresses, IPv6 without brackets; no duplicates
  std::string public_key;          ///< path of the public half
  std::string private_key;         ///< path of a private key without a pass phrase
  std::string known_hosts = {};    ///< path; "": that of root
  bool accept_new = false;         ///< whether to accept unknown host keys
  int timeout = 0;                 ///< seconds without a sign of life; 0: 30 to connect, then 60
};

/// Opens a new session that uses only this key. Throws what pnl_rpc::SSH throws.
[[nodiscard]] FLEET_API pnl_rpc::SSH LogIn(const KeySetup& setup, const std::string& node,
                                           const std::string& private_key);

inline constexpr const char* kUnusableKey = "private_key";  ///< a type of errors

/// The public half of the private key in the file `path`, in the form of KeyOf; a .pub file is not
/// read. Throws pnl_err::Error(kUnusableKey, "", path) with a message when the file is not a
/// private key or has a pass phrase.
[[nodiscard]] FLEET_API std::string PublicHalf(const std::string& path);
/// The same for the text of a private key file; "" when it is not a private key or has a pass
/// phrase.
[[nodiscard]] FLEET_API std::string PublicHalfOf(const std::string& text);

/// The fingerprints of keys (in the form of KeyOf) in their order, "SHA256:...", as ssh-keygen(1) prints
/// them; "" for what is no key. Throws pnl_err::Error("ssh_keygen") with a message if that program is missing.
[[nodiscard]] FLEET_API std::vector<std::string> Fingerprints(const std::vector<std::string>& keys);

}  // namespace fleet
