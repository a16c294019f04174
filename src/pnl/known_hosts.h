#pragma once

#include <string>

#include "pnl/ssh.h"

struct ssh_key_struct;  // libssh's, which only sources may see

/// known_hosts files (sshd(8), SSH_KNOWN_HOSTS FILE FORMAT); for the sources of this directory
/// only.
namespace pnl_rpc::known_hosts {

/// The text of the file; "" when it does not exist, or for /dev/null. Throws "file". libssh does
/// not read the file: it would treat an unreadable file as one without the host, and block on a
/// FIFO.
[[nodiscard]] std::string Read(const std::string& path);

/// Appends one line by one write(2), so that several processes may append at the same time. Throws
/// "file".
void Append(const std::string& path, std::string line);

/// The name of a host in the file: "name" or "[name]:2222".
[[nodiscard]] std::string NameOf(const std::string& host, int port);

/// Revoked if a line revokes the key, whatever other lines say; changed if the file has only other
/// keys for the host.
[[nodiscard]] HostKey::State LookUp(const std::string& text, const std::string& host,
                                    ssh_key_struct* key);

}  // namespace pnl_rpc::known_hosts
