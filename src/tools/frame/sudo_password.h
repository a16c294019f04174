#pragma once

#include <mutex>
#include <string>

namespace tools {

/// The password for sudo(8) on nodes. It is asked for once, on the terminal, and used for all nodes of
/// the command. Thread-safe.
class SudoPassword {
 public:
  explicit SudoPassword(bool many) : many_(many) {}  ///< many: there may be several nodes
  SudoPassword(const SudoPassword&) = delete;
  SudoPassword& operator=(const SudoPassword&) = delete;
  ~SudoPassword();

  /// Throws pnl_rpc::kSshSudo with a message if there is no terminal, and fleet::kInterrupted.
  std::string For(const std::string& user, const std::string& node);

 private:
  const bool many_;
  std::mutex mutex_;
  bool known_ = false;
  std::string password_;
};

}  // namespace tools
