#pragma once

#include <functional>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "fleet/inventory.h"

/// Selections of nodes. Thread-safe.
///
/// A selection is a list of words with commas between them:
///
///      web1  db[1-3]      nodes of the inventory, by name
///      @web               the nodes of a group; @all: all nodes
///      @failed            those that failed in this user's last command on several nodes
///      !web7  !@canary    not these, wherever the word stands
///      ./some/file        the nodes in a file, one in each line; the word has a "/"
///      10.0.0.9  root@[2001:db8::9]:2222  mail.example.org
///                         a node outside the inventory: an address, USER@HOST, a name with a dot
namespace fleet {

/// What a selection needs to know besides the inventory.
struct SelectionContext {
  /// Returns the names of "@failed"; for "@failed:RUN", `run` is RUN. If it is empty, these words
  /// are refused.
  std::function<std::vector<std::string>(const std::string& run)> failed = {};
  std::string dir = {};  ///< the directory of relative file names; "": the working directory
};

/// Returns the selected nodes, each once: first those of the inventory, in its order, then the
/// others, in the order of the words. Throws pnl_err::Error(kNodeName, "", word), with a message, for
/// an unknown word and if no node is selected; the message names the most similar name. Throws
/// "inventory" and "file" for a file of nodes.
[[nodiscard]] FLEET_API std::vector<Node> Select(const Inventory& inventory,
                                                 const std::string& selection,
                                                 const SelectionContext& context = {});

/// Returns the node of that name, or else a node outside the inventory. Throws as Select does.
[[nodiscard]] FLEET_API Node SelectOne(const Inventory& inventory, const std::string& word);

}  // namespace fleet
