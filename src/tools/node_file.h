#pragma once

#include <functional>
#include <string>

#include "pnl/ssh.h"

/// Reading and overwriting whole files of a node.
namespace tools {

/// pnl_err::Missed("file", path) when the node has no such file.
void RequireThere(pnl_rpc::SSH& ssh, const std::string& path);

/// The text of a file, by a plain read; "" when the node has none.
[[nodiscard]] std::string NodeText(pnl_rpc::SSH& ssh, const std::string& path);

/// Runs `write`, which overwrites a node's file in place: a connection that is lost or a disk that
/// is full meanwhile can cut it there. So both texts are kept in files below var/ until the node's
/// file was read back and is `after`; an interruption waits until then.
///
/// Throws pnl_err::Error("node", host, path) when the file stayed as it was, and when it did not or
/// nobody can tell: then the parameters "before" and "after" name the files that are left. What
/// `write` itself throws goes on when the node's file is one of the two.
void OverwriteNodeFile(pnl_rpc::SSH& ssh, const std::string& path, const std::string& before,
                       const std::string& after, const std::function<void()>& write);

}  // namespace tools
