#include "fleet/errors.h"

#include "pnl/host.h"
#include "pnl/str.h"

namespace fleet {

pnl_err::Error NodeError(const pnl_rpc::SSH& ssh, const std::string& path,
                         const std::string& message) {
  return pnl_err::Error("node", ssh.Host(), path).add_param("message", ssh.Host() + ": " + message);
}

std::string NodeText(const pnl_rpc::SSH& ssh, const std::string& path, std::size_t limit) {
  pnl_host::Content text;
  try {
    text = pnl_host::Host(ssh).Read(path, limit - 1);  // the command adds one byte to the text
  } catch (const pnl_err::Error& error) {
    if (error.type() != pnl_host::kReadFailed) throw;
    throw NodeError(
        ssh, path,
        "'" + path + "' could not be read: " + str::Replace(error.param("reason"), "\n", "; "));
  }
  if (!text) throw NodeError(ssh, path, "there is no '" + path + "'");
  return *text;
}

}  // namespace fleet
