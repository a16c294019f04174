#include "tools/frame/sudo_password.h"

#include <string.h>

#include "console/secret.h"
#include "pnl/err.h"
#include "pnl/ssh.h"

namespace tools {

SudoPassword::~SudoPassword() {
  explicit_bzero(password_.data(), password_.size());
}

std::string SudoPassword::For(const std::string& user, const std::string& node) {
  const std::lock_guard guard(mutex_);
  if (known_) return password_;
  try {
    const std::string nodes = node + (many_ ? " and the other nodes" : "");
    password_ = console::AskSecret("Password of " + user + " for sudo on " + nodes + ": ");
    known_ = true;
    return password_;
  } catch (const pnl_err::Error& error) {
    if (error.type() != pnl_err::kFile) throw;
    throw pnl_err::Error(pnl_rpc::kSshSudo, node)
        .add_param("message", node +
                                  ": sudo asks for a password, and there is no terminal to ask "
                                  "on; use one, or set NOPASSWD in sudoers(5) on the node");
  }
}

}  // namespace tools
