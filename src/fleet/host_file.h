#pragma once

#include <functional>
#include <string>

#include "fleet/export.h"
#include "pnl/host.h"

/// The files of a host, here or on a node, with errors that can be told among those of many: each
/// has a message for people, "HOST: 'PATH' could not be written: " and the host's own reason on one
/// line. What is about the session (pnl_rpc::SessionFailed) passes through.
///
///     const std::string hosts = fleet::HostText(host, "/etc/hosts");
///     fleet::ReplaceText(host, "/etc/hosts", hosts + "192.0.2.1 web1\n", hosts);
///
/// One thread at a time uses a host and its session.
namespace fleet {

/// The error of a file that is not there: pnl_err::Missed("file", path).
[[nodiscard]] FLEET_API pnl_err::Missed NoSuchFile(const pnl_host::Host& host,
                                                   const std::string& path);
FLEET_API void RequireThere(pnl_rpc::SSH& ssh, const std::string& path);  ///< throws it

/// The whole text, null where there is no file; one that cannot be read is "remote_read".
[[nodiscard]] FLEET_API pnl_host::Content HostContent(pnl_host::Host& host,
                                                      const std::string& path);
/// The same; a missing file is NoSuchFile.
[[nodiscard]] FLEET_API std::string HostText(pnl_host::Host& host, const std::string& path);

/// Host::Replace; errors are of the types "conflict" and "remote_write".
FLEET_API void ReplaceText(pnl_host::Host& host, const std::string& path, const std::string& text,
                           const pnl_host::Content& before);

/// Does `work` on the file `path` of a host. What the host refuses gets the message "... could not
/// be `done`: ..." and the type `type`; a missing file is NoSuchFile, one that somebody else has
/// changed meanwhile "conflict".
FLEET_API void OnHostFile(const pnl_host::Host& host, const std::string& path, const char* type,
                          const char* done, const std::function<void()>& work);

/// What a command that failed said of it, on one line.
[[nodiscard]] FLEET_API std::string Said(const pnl_host::Outcome& run);

/// Runs a command on the file `path` of a node; when it fails: an error of the type `type`, as
/// OnHostFile makes it.
FLEET_API void RunOnFile(const pnl_rpc::SSH& ssh, const std::string& path, const char* type,
                         const char* done, const std::string& command);

/// Makes a directory of a node and those above it; else "remote_mkdir".
[[nodiscard]] FLEET_API std::string MakeDirCommand(const std::string& path);
FLEET_API void MakeNodeDir(const pnl_rpc::SSH& ssh, const std::string& path);

/// The simple command with the directories of the system's own programs in PATH, which cron's and
/// some nodes' lack. For any login shell.
[[nodiscard]] FLEET_API std::string WithSbin(const std::string& command);

}  // namespace fleet
