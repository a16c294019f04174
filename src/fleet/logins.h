#pragma once

#include <string>

#include "fleet/export.h"
#include "fleet/inventory.h"
#include "pnl/ssh.h"

/// How to log in to nodes: directly or through jump hosts, as root or by sudo.
///
///     const fleet::Inventory inventory = fleet::Inventory::Load("etc/nodes");
///     const fleet::Logins logins(inventory, {.options = {.key_file = key}});
///     pnl_rpc::SSH ssh(logins.Of(*inventory.Find("web1")));
namespace fleet {

/// What the inventory leaves open.
struct LoginDefaults {
  pnl_rpc::SshOptions options = {};
  /// Ask "ssh -G NAME" for what is still open: HostName, Port, User, IdentityFile,
  /// UserKnownHostsFile and ProxyJump of ssh_config(5). Other settings of that file do not count,
  /// except ProxyCommand, which is refused.
  bool ssh_config = false;
  std::string key_file = {};  ///< for nodes for which nobody names a key
};

/// The type of errors about the way to a node: pnl_err::Error(kLoginError, node, word), with a
/// message.
inline constexpr const char* kLoginError = "login";

/// Thread-safe.
class FLEET_API Logins {
 public:
  /// `inventory` must outlive this object.
  Logins(const Inventory& inventory, LoginDefaults defaults);

  /// How to log in to the node. Its setting jump names jump hosts with commas between them, in
  /// order from this host: nodes of the inventory with their own settings, or [USER@]HOST[:PORT].
  /// The way to the first of them may lead through its own jump hosts. Takes at most the
  /// connect_timeout for each ssh(1) that is asked. Throws kLoginError for jump hosts in a circle,
  /// a wrong word, and an ssh(1) that gives no answer.
  pnl_rpc::SshOptions Of(const Node& node) const;

 private:
  struct Way;
  pnl_rpc::SshOptions Find(const Node& node, const Way& way) const;
  pnl_rpc::SshOptions Direct(const Node& node, std::string& jump) const;
  void AskSshConfig(const Node& node, pnl_rpc::SshOptions& options, std::string& jump) const;

  const Inventory& inventory_;
  const LoginDefaults defaults_;
};

inline constexpr int kMaxJumps = 8;  ///< hosts on the way to a node

}  // namespace fleet
