#pragma once

#include <string>

#include "pnl/ssh.h"

struct ssh_key_struct;  // libssh's, which only sources may see

/// known_hosts files (sshd(8), SSH_KNOWN_HOSTS FILE FORMAT); for the sources of this directory
/// only.
namespace pnl_rpc::known_hosts {

/// The text of such a file; "" when there is none, or for /dev/null. Throws "file": libssh takes a
/// file that it cannot open, or not read to its end, for one without the host, and waits at a FIFO.
[[nodiscard]] std::string Read(const std::string& path);

/// One line more, by one write(2), so that others may do the same at the same time. Throws "file".
void Append(const std::string& path, std::string line);

/// How the file calls a host: "name", "[name]:2222".
[[nodiscard]] std::string NameOf(const std::string& host, int port);

/// Revoked when a line says so, whatever others say; changed when lines about the host have other
/// keys only.
[[nodiscard]] HostKey::State LookUp(const std::string& text, const std::string& host,
                                    ssh_key_struct* key);

}  // namespace pnl_rpc::known_hosts
