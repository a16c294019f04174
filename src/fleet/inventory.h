#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/export.h"
#include "pnl/ssh.h"
#include "pnl/str.h"

/// The panel's nodes: their names, their groups, how to log in to them.
///
///     const fleet::Inventory inventory = fleet::Inventory::Load("etc/nodes");
///     for (const fleet::Node& node : fleet::Select(inventory, "@web,!web7"))
///       Show(node.name, node.host);
///
/// The file has a line for each node or range of nodes, below the line of its group:
///
///      10.0.0.5                                  # an address is enough
///      db1 host=10.0.2.1 user=admin port=2222
///      [eu] key=etc/eu.key
///      [web] groups=eu role=frontend             # web is a part of eu
///      web[01-40] host=10.0.1.[1-40]
///      web41 host=10.0.1.41 groups=canary        # besides its own, another group
///      [canary]
///
/// Words are those of ShellWords. Settings of a node are host, user, port, key (a private key's
/// path), known_hosts (a path), jump, become and groups (names with commas between); all others are
/// values of the owner's own. A node's setting wins over that of its groups, a group's over that of
/// the groups it is part of. host goes with nodes only.
namespace fleet {

/// The type of errors about an inventory: pnl_err::Error(kInventoryError, path, word), with the
/// parameter "line" and a message that begins with "PATH:LINE: ".
inline constexpr const char* kInventoryError = "inventory";

/// A node, and what its line and its groups say of it. Small: nodes of one line share the rest.
struct FLEET_API Node {
  std::string name;
  std::string host;  ///< where it is reached: a name, an IPv4 or (without brackets) IPv6 address
  /// Settings by their names, those of its groups too, without host and groups.
  std::shared_ptr<const StringMap> settings;
  std::shared_ptr<const std::vector<std::string>> groups;  ///< all, in the order of the file
  std::size_t line = 0;                                    ///< in the file; 0: in none

  /// A setting; "" when nobody has set it.
  const std::string& Get(const std::string& key) const;
  /// The settings that say nothing about logging in.
  StringMap Values() const;
  /// `common` with what is known of this node in its place.
  pnl_rpc::SshOptions Login(pnl_rpc::SshOptions common) const;
};

/// Whether such a setting says how to log in: not a value of the owner's own.
[[nodiscard]] FLEET_API bool IsLoginSetting(const std::string& key);

/// All nodes, in the order of the file. A value; any thread may read it.
class FLEET_API Inventory {
 public:
  Inventory() = default;  ///< no nodes
  /// Reads the file; without one there are no nodes. Throws "inventory", and "file" for one that
  /// cannot be read.
  static Inventory Load(const std::string& path);
  /// The same of its text; `path` is for errors.
  static Inventory Parse(std::string_view text, const std::string& path);

  const std::vector<Node>& Nodes() const { return nodes_; }
  const Node* Find(std::string_view name) const;  ///< null when there is none
  /// The name of a node that `name` may be a slip of; "" when none is near.
  std::string Nearest(std::string_view name) const;
  const std::vector<std::string>& Groups() const { return groups_; }  ///< in the order of the file

 private:
  std::vector<Node> nodes_;
  std::vector<std::string> groups_;
  std::map<std::string, std::size_t, std::less<>> by_name_;
};

/// A node that stands in no inventory, "[USER@]HOST[:PORT]". Throws as ParseNode.
[[nodiscard]] FLEET_API Node NodeOutside(const std::string& word);

/// The inventory of this panel: the setting "nodes" when it names a file, else etc/nodes.
[[nodiscard]] FLEET_API std::string InventoryPath();

// --- Changes of its text, which leave all other bytes as they are

/// `text` with a line for the node at the end of the lines of `group` ("": before all groups).
/// Throws "inventory" when it stands there already, there is no such group, or the new line is none.
[[nodiscard]] FLEET_API std::string WithNode(const std::string& text, const std::string& path,
                                             const std::string& line, const std::string& group);
/// `text` without the node: its line, or its place in a range. Throws "inventory" when it is not
/// there, or cannot be taken out of its range.
[[nodiscard]] FLEET_API std::string WithoutNode(const std::string& text, const std::string& path,
                                                const std::string& name);

}  // namespace fleet
