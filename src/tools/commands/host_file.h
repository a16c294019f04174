#pragma once

#include <functional>
#include <memory>
#include <string>

#include "pnl/file.h"
#include "pnl/host.h"
#include "tools/frame/verb.h"

/// The files of a host, here or on a node, with errors told for people.
namespace tools {

/// The host that --node names; without it this one.
[[nodiscard]] pnl_host::Host OpenHost(const Context& context);

/// The error of a file of a node that is not there: pnl_err::Missed("file", path).
[[nodiscard]] pnl_err::Missed NoSuchFile(const pnl_host::Host& host, const std::string& path);
void RequireThere(pnl_rpc::SSH& ssh, const std::string& path);  ///< throws it

/// The whole text. A missing file is NoSuchFile.
[[nodiscard]] std::string HostText(pnl_host::Host& host, const std::string& path);
/// The same; "" of a missing file.
[[nodiscard]] std::string HostTextOrNone(pnl_host::Host& host, const std::string& path);

/// Does `work` on the file `path` of a host. What the host refuses gets a message with its own
/// reason, "... could not be `done`: ...", and the type `type`.
void OnHostFile(const pnl_host::Host& host, const std::string& path, const char* type,
                const char* done, const std::function<void()>& work);

/// What a command that failed said of it, on one line.
[[nodiscard]] std::string Said(const pnl_host::Outcome& run);

/// Runs a command on the file `path` of a node. When it fails: an error of the type `type` with the
/// message "... could not be `done`: ..." and the node's own reason.
void RunOnFile(const pnl_rpc::SSH& ssh, const std::string& path, const char* type, const char* done,
               const std::string& command);

/// Makes a directory of a node and those above it.
[[nodiscard]] std::string MakeDirCommand(const std::string& path);
void MakeNodeDir(const pnl_rpc::SSH& ssh, const std::string& path);

/// The change of one file's text, told of by `record`. While the plan is more than shown, `lock`
/// keeps two of these programs apart.
[[nodiscard]] Change FileChange(pnl_host::Host host, const std::string& path,
                                const pnl_host::Content& before, const std::string& after,
                                std::shared_ptr<const pnl_file::Lock> lock, Record record);
/// A lock of the file for FileChange: of a file of this host, unless the change is only planned.
[[nodiscard]] std::shared_ptr<const pnl_file::Lock> LockForChange(const Context& context,
                                                                  const pnl_host::Host& host,
                                                                  const std::string& path);

/// Host::Replace, with its errors told so: of the types "conflict" and "remote_write".
void ReplaceText(pnl_host::Host& host, const std::string& path, const std::string& text,
                 const pnl_host::Content& before);

}  // namespace tools
