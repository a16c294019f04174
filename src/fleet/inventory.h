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

/// The panel's nodes: their names, their groups, and how to log in to them.
///
///     const fleet::Inventory inventory = fleet::Inventory::Load("etc/nodes");
///     for (const fleet::Node& node : fleet::Select(inventory, "@web,!web7"))
///       Show(node.name, node.host);
///
/// The file has one line for each node or range of nodes, below the line of its group:
///
///      10.0.0.5                                  # an address is enough
///      db1 host=10.0.2.1 user=admin port=2222
///      [eu] key=etc/eu.key
///      [web] groups=eu role=frontend             # web is a part of eu
///      web[01-40] host=10.0.1.[1-40]
///      web41 host=10.0.1.41 groups=canary        # besides its own, another group
///      [canary]
///
/// Words are written as ShellWords reads them. The settings of a login are host, user, port, key (the
/// path of a private key), known_hosts (a path), jump (jump hosts with commas between them, or none)
/// and become (sudo or none). groups lists further groups, with commas between them. All other settings are values of the owner. A setting of a node overrides
/// those of its groups, and a setting of a group those of the groups that it is part of. A group has
/// no host.
namespace fleet {

/// The type of errors about an inventory: pnl_err::Error(kInventoryError, path, word), with the
/// parameter "line" and a message that begins with "PATH:LINE: ".
inline constexpr const char* kInventoryError = "inventory";

/// A node with its settings. Nodes of the same line share them.
struct FLEET_API Node {
  std::string name;
  std::string host;  ///< its address: a name, IPv4, or IPv6 without brackets
  /// Its settings and those of its groups, without host and groups.
  std::shared_ptr<const StringMap> settings;
  std::shared_ptr<const std::vector<std::string>> groups;  ///< all, in the order of the file
  std::size_t line = 0;  ///< its line in the file; 0 for a node outside the inventory

  /// The value of a setting; "" if it is not set.
  const std::string& Get(const std::string& key) const;
  /// The values of the owner: all settings that are not for the login.
  StringMap Values() const;
  /// Returns `common`, overridden by host, user, port, key and known_hosts of this node. Logins also
  /// finds its jump hosts.
  pnl_rpc::SshOptions Login(pnl_rpc::SshOptions common) const;
};

/// Whether a setting of that name is for the login, not a value of the owner.
[[nodiscard]] FLEET_API bool IsLoginSetting(const std::string& key);

/// All nodes, in the order of the file. Reading it is thread-safe.
class FLEET_API Inventory {
 public:
  Inventory() = default;  ///< no nodes
  /// Reads the file. A missing file is an inventory without nodes. Throws "inventory", and "file" if
  /// the file cannot be read.
  static Inventory Load(const std::string& path);
  /// Reads the text of such a file; `path` is for errors.
  static Inventory Parse(std::string_view text, const std::string& path);

  const std::vector<Node>& Nodes() const { return nodes_; }
  const Node* Find(std::string_view name) const;  ///< null if there is none
  /// The name of the node that is most similar to a misspelt `name`; "" if none is similar.
  std::string Nearest(std::string_view name) const;
  const std::vector<std::string>& Groups() const { return groups_; }  ///< in the order of the file

 private:
  std::vector<Node> nodes_;
  std::vector<std::string> groups_;
  std::map<std::string, std::size_t, std::less<>> by_name_;
};

/// A node outside the inventory, "[USER@]HOST[:PORT]". Throws as ParseNode does.
[[nodiscard]] FLEET_API Node NodeOutside(const std::string& word);

/// The path of this panel's inventory: the setting "nodes" if that is a file, else etc/nodes.
[[nodiscard]] FLEET_API std::string InventoryPath();

// --- Changes of its text. All other bytes stay as they are.

/// Returns `text` with one more line, after the last node of `group`; with "", before all groups.
/// Throws "inventory" if the node or the group is wrong, or if the node is there already.
[[nodiscard]] FLEET_API std::string WithNode(const std::string& text, const std::string& path,
                                             const std::string& line, const std::string& group);
/// Returns `text` without the node. A node of a range is taken out of the range. Throws "inventory"
/// if the node is missing, or if the range cannot be written without it.
[[nodiscard]] FLEET_API std::string WithoutNode(const std::string& text, const std::string& path,
                                                const std::string& name);

}  // namespace fleet
