#pragma once

#include <functional>
#include <string>

#include "fleet/export.h"
#include "pnl/err.h"
#include "pnl/host.h"
#include "pnl/ssh.h"

/// Files and commands of a host, here or on a node, with errors that can be told to people: each has
/// a message, "HOST: ...", with the host's own reason. What a host is used by, one thread at a time,
/// calls these.
namespace fleet {

/// The error of a file that is not there: pnl_err::Missed("file", path).
[[nodiscard]] FLEET_API pnl_err::Missed NoSuchFile(const pnl_host::Host& host,
                                                   const std::string& path);

/// Does `work` on the file `path`. What the host refuses is told as "... could not be `done`: ..."
/// and has the type `type`, or "conflict" where somebody else has changed the file; what is missing
/// is NoSuchFile.
FLEET_API void OnHostFile(const pnl_host::Host& host, const std::string& path, const char* type,
                          const char* done, const std::function<void()>& work);

/// The whole text, null where there is no file; else "remote_read".
[[nodiscard]] FLEET_API pnl_host::Content HostContent(pnl_host::Host& host,
                                                      const std::string& path);
/// The same; a missing file is NoSuchFile.
[[nodiscard]] FLEET_API std::string HostText(pnl_host::Host& host, const std::string& path);

/// Host::Replace of a file that was `before`; "conflict", "remote_write".
FLEET_API void ReplaceText(pnl_host::Host& host, const std::string& path, const std::string& text,
                           const pnl_host::Content& before);

/// What a command that failed said of it, on one line: its exit code when it said nothing.
[[nodiscard]] FLEET_API std::string Said(const pnl_host::Outcome& run);

/// Runs a command on the file `path` of a node. When it fails: an error of the type `type` with the
/// message "... could not be `done`: ...".
FLEET_API void RunOnFile(const pnl_rpc::SSH& ssh, const std::string& path, const char* type,
                         const char* done, const std::string& command);

/// The simple command with the directories of the system's own programs in PATH, which cron's and
/// some nodes' lack. For any login shell.
[[nodiscard]] FLEET_API std::string WithSbin(const std::string& command);

}  // namespace fleet
