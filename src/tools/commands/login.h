#pragma once

#include <string>
#include <utility>

#include "fleet/errors.h"
#include "pnl/ssh.h"
#include "tools/frame/verb.h"

/// What the families that work on managed nodes share.
namespace tools {

/// --known-hosts, --accept-new, --timeout.
void AddLoginOptions(opts::Args& args);
/// The same with --node, --key. The first is returned: some families require it, others work here
/// without it.
opts::Arg& AddNodeOptions(opts::Args& args);

/// What the node options and else the settings say. The panel's own key counts when there is one.
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

/// A word NAME=VALUE of what the command line calls `what`; else a usage error.
[[nodiscard]] std::pair<std::string, std::string> Assignment(const std::string& word,
                                                             const std::string& what);

/// Does `work`, whose errors of the type `type` are about the word of `option`.
template <class Work>
auto AboutWord(const char* type, const std::string& option, const Work& work) {
  try {
    return work();
  } catch (const pnl_err::Error& error) {
    if (error.type() != type) throw;
    throw UsageError(option, error.value(), option + ": " + error.param("message"));
  }
}

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
