#include "tools/frame/sudo_password.h"

#include <string.h>

#include <mutex>

#include "console/secret.h"
#include "pnl/err.h"
#include "pnl/ssh.h"

namespace tools {
namespace {

/// A password that leaves no trace in memory.
struct Secret {
  Secret() = default;
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  ~Secret() { explicit_bzero(text.data(), text.size()); }

  std::mutex mutex;
  bool known = false;
  std::string text;
};

}  // namespace

std::string SudoPassword(const std::string& user, const std::string& node, bool many) {
  static Secret secret;
  const std::lock_guard guard(secret.mutex);
  if (secret.known) return secret.text;
  try {
    const std::string nodes = node + (many ? " and the other nodes" : "");
    secret.text = console::AskSecret("Password of " + user + " for sudo on " + nodes + ": ");
    secret.known = true;
    return secret.text;
  } catch (const pnl_err::Error& error) {
    if (error.type() != pnl_err::kFile) throw;
    throw pnl_err::Error(pnl_rpc::kSshSudo, node)
        .add_param("message", node +
                                  ": sudo asks for a password, and there is no terminal to ask "
                                  "on; use one, or set NOPASSWD in sudoers(5) on the node");
  }
}

}  // namespace tools
