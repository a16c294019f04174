#pragma once

#include <string>

#include "fleet/errors.h"
#include "pnl/ssh.h"
#include "tools/frame/verb.h"

/// What the families that work on a managed node share.
namespace tools {

/// --node, --key, --known-hosts, --accept-new, --timeout. The first is returned: some families
/// require it, others work here without it.
opts::Arg& AddNodeOptions(opts::Args& args);

/// Reads "[USER@]HOST[:PORT]" into user, host and port; an IPv6 address stands in brackets where a
/// port follows. Anything else is pnl_err::Error("usage", "--node", text).
void ParseNode(const std::string& text, pnl_rpc::SshOptions& options);

/// What the node options say.
[[nodiscard]] pnl_rpc::SshOptions NodeOptions(const Context& context);

/// Opens the session to --node, with --timeout set.
[[nodiscard]] pnl_rpc::SSH OpenNode(const Context& context);

/// The positional word `name` as a path on the node, without "/" at its end:
/// pnl_err::Error("usage", name) when it is not absolute.
[[nodiscard]] std::string NodePath(const Context& context, const std::string& name);
/// The same of a path that is to be removed or moved: nor may it be "/" or end in "." or "..".
[[nodiscard]] std::string MovablePath(const Context& context, const std::string& name);

/// Some command lines take a word as it is: `word` must be one that the shell reads as itself, else
/// pnl_err::Error("usage", what, word).
void RequirePlain(const std::string& word, const std::string& what);

/// The simple command with the directories of the system's own programs in PATH, which cron's and
/// some nodes' lack. For any login shell.
[[nodiscard]] std::string WithSbin(const std::string& command);

/// A wrong word on the command line: pnl_err::Error("usage", object, value).
[[nodiscard]] pnl_err::Error UsageError(const std::string& object, const std::string& value,
                                        const std::string& message);

using fleet::NodeError;

/// A word for a path on the node that ends in "/" means a directory: NodeError when there is none.
void RequireMeant(const Context& context, pnl_rpc::SSH& ssh, const std::string& name);

/// OpenNode, and RequireMeant for the words `names`.
[[nodiscard]] pnl_rpc::SSH OpenNode(const Context& context, const std::vector<std::string>& names);

/// fleet::OnNodeFile with the program's own advice.
template <class Work>
void OnNodeFile(const pnl_rpc::SSH& ssh, const std::string& path, const char* done,
                const Work& work) {
  fleet::OnNodeFile(ssh, path, done, work, "; -v shows what the node answered");
}

}  // namespace tools
