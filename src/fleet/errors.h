#pragma once

#include <cstddef>
#include <string>

#include "fleet/export.h"
#include "pnl/err.h"
#include "pnl/ssh.h"
#include "pnl/str.h"

/// Errors with messages that name the node, for work on many nodes.
namespace fleet {

/// The error of a failed operation on the file `path` of a node; `path` is "" when no file is
/// concerned. It is pnl_err::Error("node", host, path) with the parameter "message", "HOST:
/// `message`".
[[nodiscard]] FLEET_API pnl_err::Error NodeError(const pnl_rpc::SSH& ssh, const std::string& path,
                                                 const std::string& message);

/// The text of a file of a node. A file that is missing or cannot be read throws NodeError with the
/// node's own reason; more than `limit` bytes are "ssh_exec".
[[nodiscard]] FLEET_API std::string NodeText(const pnl_rpc::SSH& ssh, const std::string& path,
                                             std::size_t limit);

/// Does `work` on the file `path` of a node. The library's errors of such work have only a type.
/// This function adds the node, the path and a message: "HOST: 'PATH' could not be `done`: " and
/// the node's own reason, or `advice` when the node gave none. Other errors are passed on
/// unchanged.
template <class Work>
void OnNodeFile(const pnl_rpc::SSH& ssh, const std::string& path, const char* done,
                const Work& work, const char* advice = "") {
  try {
    work();
  } catch (const pnl_err::Error& error) {
    if (!error.object().empty()) throw;
    const std::string said = str::WithoutCredentials(str::Trim(ssh.Complaint()));
    const std::string why = said.empty() ? advice : ": " + str::Replace(said, "\n", "; ");
    throw pnl_err::Error(error.type(), ssh.Host(), path)
        .add_param("message", ssh.Host() + ": '" + path + "' could not be " + done + why);
  }
}

}  // namespace fleet
