#pragma once

#include <string>

namespace tools {

/// The password for sudo(8) on nodes. It is asked for on the terminal, once, and used for all nodes.
/// `many`: there may be other nodes. Thread-safe. Throws pnl_rpc::kSshSudo with a message if there is
/// no terminal, and fleet::kInterrupted.
[[nodiscard]] std::string SudoPassword(const std::string& user, const std::string& node, bool many);

}  // namespace tools
