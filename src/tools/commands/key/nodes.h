#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "console/interrupt.h"
#include "fleet/key_login.h"
#include "fleet/node_work.h"
#include "tools/commands/node_table.h"
#include "tools/frame/verb.h"

/// What the commands of the family "key" share: the panel's key pair, and the nodes that accept it.
namespace tools {

/// --nodes, --public, --private, --known-hosts, --accept-new, --timeout.
void AddKeyOptions(opts::Args& args);

/// The addresses in the file `path` when there is one, else those in `word`, with commas between
/// them; as they stand there.
[[nodiscard]] std::vector<std::string> NodesNamed(const std::string& word, const std::string& path);

/// What they say, or else the settings; paths may be relative to the prefix. Throws pnl_err::Error
/// of type "usage" for an address or path that the shell would not take as one word, as the
/// distribution has them on its command lines, and for a missing key file.
[[nodiscard]] fleet::KeySetup ReadKeySetup(const Context& context);

/// Does `work`, to which a private key that cannot be used is a wrong word on the command line.
template <class Work>
auto WithPrivateKey(const Work& work) {
  try {
    return work();
  } catch (const pnl_err::Error& error) {
    if (error.type() != fleet::kUnusableKey) throw;
    throw pnl_err::Error("usage", "--private", error.value())
        .add_param("message", error.param("message"));
  }
}

/// Work on nodes as the user sees it, and his way to interrupt it.
struct NodeScreen {
  NodeScreen(Context& context, const std::vector<std::string>& nodes, NodeTable::News news)
      : table(context, nodes, news) {}

  const console::NotedInterruption interruption;
  NodeTable table;
};

/// What shows work there; it holds the screen.
[[nodiscard]] fleet::NodeWatch WatchOn(const std::shared_ptr<NodeScreen>& screen);

}  // namespace tools
