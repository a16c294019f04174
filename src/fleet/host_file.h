#pragma once

#include <functional>
#include <string>

#include "fleet/export.h"
#include "pnl/host.h"

/// Files of a host (this host or a node), with errors for work on many hosts. Each error has a
/// message for people: "HOST: 'PATH' could not be written: " and the host's own reason, on one
/// line. Errors of the session (pnl_rpc::SessionFailed) are passed on unchanged.
///
///     const std::string hosts = fleet::HostText(host, "/etc/hosts");
///     fleet::ReplaceText(host, "/etc/hosts", hosts + "192.0.2.1 web1\n", hosts);
///
/// Use a host and its session from one thread at a time.
namespace fleet {

/// The error for a missing file: pnl_err::Missed("file", path).
[[nodiscard]] FLEET_API pnl_err::Missed NoSuchFile(const pnl_host::Host& host,
                                                   const std::string& path);
FLEET_API void RequireThere(pnl_rpc::SSH& ssh,
                            const std::string& path);  ///< throws NoSuchFile if missing

/// The whole text; null when there is no file. A file that cannot be read is "remote_read".
[[nodiscard]] FLEET_API pnl_host::Content HostContent(pnl_host::Host& host,
                                                      const std::string& path);
/// The same, but a missing file throws NoSuchFile.
[[nodiscard]] FLEET_API std::string HostText(pnl_host::Host& host, const std::string& path);

/// Calls Host::Replace; errors have the types "conflict" and "remote_write".
FLEET_API void ReplaceText(pnl_host::Host& host, const std::string& path, const std::string& text,
                           const pnl_host::Content& before);

/// Does `work` on the file `path` of a host. A failure on the host becomes an error of the type
/// `type` with the message "... could not be `done`: ...". A missing file is NoSuchFile. A file
/// that somebody else has changed meanwhile is "conflict".
FLEET_API void OnHostFile(const pnl_host::Host& host, const std::string& path, const char* type,
                          const char* done, const std::function<void()>& work);

/// The reason that a failed command printed, on one line.
[[nodiscard]] FLEET_API std::string Said(const pnl_host::Outcome& run);

/// Runs a command for the file `path` of a node. When it fails, throws an error of the type `type`,
/// as OnHostFile does.
FLEET_API void RunOnFile(const pnl_rpc::SSH& ssh, const std::string& path, const char* type,
                         const char* done, const std::string& command);

/// Makes a directory of a node and its parents; throws "remote_mkdir".
[[nodiscard]] FLEET_API std::string MakeDirCommand(const std::string& path);
FLEET_API void MakeNodeDir(const pnl_rpc::SSH& ssh, const std::string& path);

/// The simple command with the sbin directories added to PATH; cron and some nodes do not have
/// them. Works with any login shell.
[[nodiscard]] FLEET_API std::string WithSbin(const std::string& command);

}  // namespace fleet
