#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "console/interrupt.h"
#include "console/node_table.h"
#include "fleet/inventory.h"
#include "fleet/key_login.h"
#include "fleet/node_work.h"
#include "tools/frame/verb.h"

/// What the verbs of the family "key" share: the panel's key pair, and the nodes that accept it.
namespace tools {

Verb KeyRotateVerb();
Verb KeyVerifyVerb();
Verb KeyRetireVerb();
Verb KeyAuditVerb();

/// The nodes of --nodes; without it, those of the setting: a file or addresses.
[[nodiscard]] std::vector<fleet::Node> KeyNodes(const Context& context);

/// What the options say, or else the settings; paths may be relative to the prefix. A usage error
/// for an address or path that the shell would not take as one word, as the distribution has them
/// on its command lines.
[[nodiscard]] fleet::KeySetup ReadKeySetup(const Context& context);

/// Work on nodes as the user sees it, and his way to interrupt it.
struct NodeScreen {
  NodeScreen(const Context& context, const std::vector<std::string>& nodes);

  /// The answer of a change: a node was changed when it came to the state `changed`, which is not
  /// known of one that failed.
  Answer Told(fleet::NodeState changed, int code);

  const console::NotedInterruption interruption;
  console::NodeTable table;
};

/// What shows work there; it holds the screen.
[[nodiscard]] fleet::NodeWatch WatchOn(const std::shared_ptr<NodeScreen>& screen);

/// A change of the setup's nodes that `preview` plans. When that fails on some, all are listed.
[[nodiscard]] Change Previewed(
    Context& context, const fleet::KeySetup& setup,
    const std::function<fleet::Plan(const fleet::NodeWatch& watch)>& preview);

}  // namespace tools
