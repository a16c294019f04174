#include "fleet/errors.h"

namespace fleet {

pnl_err::Error NodeError(const pnl_rpc::SSH& ssh, const std::string& path,
                         const std::string& message) {
  return pnl_err::Error("node", ssh.Host(), path).add_param("message", ssh.Host() + ": " + message);
}

}  // namespace fleet
