// The inventory: its text, changes of it, selections and ranges of names.

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "check.h"
#include "fleet/change_file.h"
#include "fleet/inventory.h"
#include "fleet/node_names.h"
#include "fleet/node_range.h"
#include "fleet/selection.h"
#include "pnl/file.h"
#include "pnl/str.h"

namespace {

using fleet::Inventory;
using fleet::Node;
using Names = std::vector<std::string>;

constexpr const char* kPath = "nodes";
constexpr std::size_t kRemovals = 3;

/// Whether a line may make so many names that they would take all the time.
bool IsWide(std::string text) {
  while (!text.empty()) {
    const std::string line = str::GetWord(text, '\n');
    double names = 1;
    for (std::size_t at = 0; (at = line.find_first_of("-,[", at)) != std::string::npos; ++at)
      names *= std::clamp(std::atof(line.c_str() + at + 1), 1.0, 1e9);
    if (names > 1e3) return true;
  }
  return false;
}

/// What `work` returns; nothing when it throws an error that `is_known` knows.
template <class Work, class IsKnown>
auto Tried(const Work& work, const IsKnown& is_known) -> std::optional<decltype(work())> try {
  return work();
} catch (const pnl_err::Error& error) {
  fuzz::Check(is_known(error), error.what());
  return std::nullopt;
}

bool IsInventoryError(const pnl_err::Error& error) {
  return error.type() == fleet::kInventoryError && error.object() == kPath &&
         error.param("message").starts_with(std::string(kPath) + ":");
}

bool IsSelectionError(const pnl_err::Error& error) {
  const bool known = error.type() == fleet::kNodeName || error.type() == fleet::kInventoryError;
  return error.type() == "file" || (known && !error.param("message").empty());
}

bool AreSame(const Node& a, const Node& b) {
  return a.name == b.name && a.host == b.host && *a.settings == *b.settings &&
         *a.groups == *b.groups;
}

/// All of `nodes` without the one of that name.
void CheckNodes(const Inventory& inventory, std::vector<Node> nodes, const std::string& name,
                const char* what) {
  std::erase_if(nodes, [&](const Node& node) { return node.name == name; });
  fuzz::Check(std::equal(nodes.begin(), nodes.end(), inventory.Nodes().begin(),
                         inventory.Nodes().end(), AreSame),
              what);
}

void CheckFolded(const Names& names) {
  std::set<std::string> unfolded;
  for (const std::string& word : fleet::FoldNames(names)) {
    for (const std::string& name : fleet::ExpandRange(word))
      fuzz::Check(unfolded.insert(name).second, "a name comes once");
  }
  fuzz::Check(unfolded == std::set<std::string>(names.begin(), names.end()), "the same names");
}

void CheckChanges(const std::string& text, const Inventory& inventory, const std::string& line,
                  const std::string& group) {
  const std::vector<Node>& nodes = inventory.Nodes();
  for (std::size_t i = 0; i < std::min(nodes.size(), kRemovals); ++i) {
    const auto without =
        Tried([&] { return fleet::WithoutNode(text, kPath, nodes[i].name); }, IsInventoryError);
    if (without)
      CheckNodes(Inventory::Parse(*without, kPath), nodes, nodes[i].name, "the others stay");
  }
  const auto with =
      Tried([&] { return fleet::WithNode(text, kPath, line, group); }, IsInventoryError);
  if (!with) return;
  const Inventory changed = Inventory::Parse(*with, kPath);
  std::vector<Node> old;
  for (const Node& node : changed.Nodes())
    if (inventory.Find(node.name) != nullptr) old.push_back(node);
  CheckNodes(inventory, old, "", "a new line changes no other node");
}

/// What files of changes write for values of the node.
void CheckValues(const Node& node) {
  const StringMap values = fleet::NodeValues(node, {.port = 22, .user = "root"});
  for (const auto& [name, value] : values)
    fuzz::Check(fleet::FilledIn("-{node." + name + "}{node.port}", values) == "-" + value + "22",
                "a value of a node");
  fuzz::Check(values.contains("groups") == (node.line != 0),
              "only nodes of the inventory have groups");
}

void CheckSelection(const Inventory& inventory, const std::string& selection) {
  fleet::SelectionContext context;
  context.failed = [&](const std::string& run) {
    return inventory.Nodes().empty() ? Names{run} : Names{inventory.Nodes().back().name, "gone"};
  };
  const auto nodes =
      Tried([&] { return fleet::Select(inventory, selection, context); }, IsSelectionError);
  if (!nodes) return;
  fuzz::Check(!nodes->empty() && nodes->size() <= fleet::kMaxNodes, "a selection has nodes");
  StringSet seen;
  for (const Node& node : *nodes) {
    fuzz::Check(seen.insert(node.name).second, "a node comes once");
    CheckValues(node);
  }
}

}  // namespace

/// A selection, a line to add, its group, then the inventory.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(fuzz::Text(data, size));
  if (IsWide(text)) return 0;
  const std::string selection = str::GetWord(text, '\n');
  const std::string line = str::GetWord(text, '\n');
  const std::string group = str::GetWord(text, '\n');
  try {
    CheckFolded(fleet::ExpandRange(selection));
  } catch (const std::invalid_argument&) {
    // no range
  }
  const auto inventory = Tried([&] { return Inventory::Parse(text, kPath); }, IsInventoryError);
  if (!inventory) return 0;
  Names names;
  for (const Node& node : inventory->Nodes()) {
    fuzz::Check(inventory->Find(node.name) == &node, "a node is found");
    names.push_back(node.name);
  }
  CheckFolded(names);
  CheckChanges(text, *inventory, line, group);
  CheckSelection(*inventory, selection);
  return 0;
}
