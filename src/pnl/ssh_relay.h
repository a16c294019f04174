#pragma once

#include <sys/types.h>

#include <string>
#include <utility>

#include "pnl/file.h"
#include "pnl/ssh.h"

/// The way through jump hosts; for the sources of this directory only.
namespace pnl_rpc {

/// An ssh(1) that passes a connection on through jump hosts ("ssh -W"). It never prompts, reads no
/// configuration file, and checks host keys as a session does. With several jump hosts it starts
/// one ssh(1) for each of them.
class Relay {
 public:
  /// Starts it. Throws "ssh_connect" if that is not possible.
  explicit Relay(const SshOptions& options);
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;
  /// Ends all of its processes. Close the socket before.
  ~Relay();

  /// The socket that leads to the node. Call it once.
  pnl_file::Fd TakeSocket() { return std::move(socket_); }

  /// Why the connection ended: what ssh(1) has printed, else `reason`, with the names of the jump
  /// hosts. Waits a moment for the end of ssh(1).
  std::string Reason(const std::string& reason);
  /// The error of a connection that did not come about, with that reason. Its type is that of the
  /// jump host's failure.
  pnl_err::Error Explained(const pnl_err::Error& error);

 private:
  void ReadErrors(int milliseconds);

  const std::string way_;  // "through the jump hosts a, b: "
  pid_t pid_ = -1;
  pnl_file::Fd socket_;
  pnl_file::Fd errors_;
  pnl_file::Fd life_;  // closes when this process dies
  std::string complaint_;
};

}  // namespace pnl_rpc
