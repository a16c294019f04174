#pragma once

#include <string>
#include <utility>
#include <vector>

#include "fleet/errors.h"
#include "fleet/inventory.h"
#include "fleet/logins.h"
#include "fleet/run.h"
#include "pnl/host.h"
#include "pnl/ssh.h"
#include "tools/frame/context.h"

/// Shared by the families that work on managed nodes.
namespace tools {

/// Adds --known-hosts, --accept-new, --timeout.
void AddLoginOptions(opts::Args& args);
void AddKeyOption(opts::Args& args);  ///< adds --key
/// Also adds --node and --key. Returns --node: some families require it, others work on this host
/// without it.
opts::Arg& AddNodeOptions(opts::Args& args);

/// The login options from the command line and the settings. Uses the panel's own key if it exists.
[[nodiscard]] pnl_rpc::SshOptions NodeOptions(const Context& context);

/// How to log in to nodes. Their settings in the inventory override those of the panel, and the
/// options of the command line override both. Thread-safe.
class NodeLogins {
 public:
  /// `context` must outlive this object.
  explicit NodeLogins(const Context& context);
  /// Throws what fleet::Logins throws.
  [[nodiscard]] pnl_rpc::SshOptions Of(const fleet::Node& node) const;

 private:
  const Context& context_;
  const fleet::Inventory inventory_;
  const fleet::Logins logins_;
};

/// How to log in to the nodes of a run from the journal: as booked, overridden by the options of the
/// command line. `context` must outlive it.
[[nodiscard]] fleet::LoginOf BookedLogins(const Context& context);

/// The ID of a run. Throws Missed if the word is no number.
[[nodiscard]] std::int64_t RunNumber(const std::string& word);
/// The nodes of "@failed", or of "@failed:RUN" if `run` is not "".
[[nodiscard]] std::vector<std::string> FailedNodesOf(const std::string& run);

/// The nodes of the panel.
[[nodiscard]] fleet::Inventory PanelInventory();
/// The nodes that --nodes, or a positional word with another name, selects.
[[nodiscard]] std::vector<fleet::Node> SelectedNodes(const Context& context,
                                                     const std::string& name = "nodes");

/// The node that --node names. Throws a usage error for it.
[[nodiscard]] fleet::Node NamedNode(const Context& context);

/// The host that --node names; without the option, this host.
[[nodiscard]] pnl_host::Host OpenHost(const Context& context);
/// Opens the session to --node, with --timeout set.
[[nodiscard]] pnl_rpc::SSH OpenNode(const Context& context);

/// The positional word `name` as a path on the node, without "/" at its end. Throws
/// pnl_err::Error("usage", name) when it is not absolute.
[[nodiscard]] std::string NodePath(const Context& context, const std::string& name);
/// The same for a path that is to be removed or moved; it also must not be "/" or end in "." or
/// "..".
[[nodiscard]] std::string MovablePath(const Context& context, const std::string& name);

/// For command lines that do not quote a word. Throws pnl_err::Error("usage", what, word) unless
/// `word` is a plain shell word.
void RequirePlain(const std::string& word, const std::string& what);

/// Parses a word NAME=VALUE, which the command line calls `what`; otherwise a usage error.
[[nodiscard]] std::pair<std::string, std::string> Assignment(const std::string& word,
                                                             const std::string& what);

/// Does `work`; its errors of the type `type` become usage errors for the word of `option`.
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

/// When the word for a path on the node ends with "/", it must be a directory: otherwise throws
/// NodeError.
void RequireMeant(const Context& context, pnl_rpc::SSH& ssh, const std::string& name);

/// Calls OpenNode, and RequireMeant for the words `names`.
[[nodiscard]] pnl_rpc::SSH OpenNode(const Context& context, const std::vector<std::string>& names);

/// Calls fleet::OnNodeFile with the program's own advice.
template <class Work>
void OnNodeFile(const pnl_rpc::SSH& ssh, const std::string& path, const char* done,
                const Work& work) {
  fleet::OnNodeFile(ssh, path, done, work, "; -v shows what the node answered");
}

}  // namespace tools
