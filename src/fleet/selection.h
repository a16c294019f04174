#pragma once

#include <functional>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "fleet/inventory.h"

/// Which nodes people mean. Any thread may call these.
///
/// A selection is words with commas between:
///
///      web1  db[1-3]      nodes of the inventory, by name
///      @web               those of a group; @all are all
///      @failed            those that failed in this user's last command on several nodes
///      !web7  !@canary    but not these, wherever it stands
///      ./some/file        those that a file names, a line each; it has a "/"
///      10.0.0.9  root@[2001:db8::9]:2222  mail.example.org
///                         a node that stands nowhere: an address, USER@HOST, or a name with a dot
namespace fleet {

/// What a selection needs to know besides the inventory.
struct SelectionContext {
  /// Returns the names that "@failed" stands for; for "@failed:RUN", `run` is RUN. Empty: the word
  /// is refused.
  std::function<std::vector<std::string>(const std::string& run)> failed = {};
  std::string dir = {};  ///< the directory of relative file names; "": the working directory
};

/// The nodes that are meant: those of the inventory in its order, then others in the order of the
/// words; each once. Throws pnl_err::Error(kNodeName, "", word), with a message, for a word that
/// means nothing (the message names the nearest name), and when no node is left; "inventory" and
/// "file" for a file of nodes.
[[nodiscard]] FLEET_API std::vector<Node> Select(const Inventory& inventory,
                                                 const std::string& selection,
                                                 const SelectionContext& context = {});

/// The one node that `word` names, in the inventory or outside. Throws as Select.
[[nodiscard]] FLEET_API Node SelectOne(const Inventory& inventory, const std::string& word);

}  // namespace fleet
