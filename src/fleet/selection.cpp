#include "fleet/selection.h"

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>

#include "brefir/cmdarg.h"
#include "fleet/node_names.h"
#include "fleet/node_range.h"
#include "pnl/file.h"
#include "pnl/test.h"

namespace fleet {
namespace {

using Names = std::vector<std::string>;

pnl_err::Error Wrong(const std::string& word, const std::string& what) {
  return pnl_err::Error(kNodeName, "", word).add_param("message", "'" + word + "' " + what);
}

/// What can be a node without an inventory: nobody would misspell a node's name like that.
bool IsOutside(const std::string& word) {
  return word.find_first_of("@.:") != std::string::npos;
}

/// The nodes chosen so far.
class Chosen {
 public:
  Chosen(const Inventory& inventory, const SelectionContext& context)
      : inventory_(inventory), context_(context) {}

  void Add(const std::string& word);
  std::vector<Node> Take();

 private:
  void AddGroup(const std::string& word);
  void AddFile(const std::string& path);
  void AddNames(const std::string& word);
  void AddName(const std::string& name);
  void AddNode(const Node& node);
  std::string Here(const std::string& path) const;
  pnl_err::Error Unknown(const std::string& name) const;

  const Inventory& inventory_;
  const SelectionContext& context_;
  bool excludes_ = false;  // the present word
  std::set<std::size_t> inside_, not_inside_;
  std::vector<Node> outside_;
  StringSet outside_names_, not_outside_;
};

void Chosen::Add(const std::string& word) {
  excludes_ = word.starts_with('!');
  const std::string name = word.substr(excludes_ ? 1 : 0);
  if (name.empty()) throw Wrong(word, "names no node");
  if (name.starts_with('@')) return AddGroup(name.substr(1));
  if (name.find('/') != std::string::npos) return AddFile(name);
  AddNames(name);
}

void Chosen::AddGroup(const std::string& word) {
  std::string run = word;
  if (str::GetWord(run, ':') == "failed") {
    if (!context_.failed) throw Wrong("@" + word, "is not known here");
    for (const std::string& name : context_.failed(run)) AddName(name);
    return;
  }
  const Names& groups = inventory_.Groups();
  if (word != "all" && std::find(groups.begin(), groups.end(), word) == groups.end()) {
    const std::string nearest = opts::Nearest(word, groups);
    throw Wrong("@" + word, "is no group of the inventory" +
                                (nearest.empty() ? "" : "; did you mean '@" + nearest + "'?"));
  }
  for (const Node& node : inventory_.Nodes()) {
    const Names& in = *node.groups;
    if (word == "all" || std::find(in.begin(), in.end(), word) != in.end()) AddNode(node);
  }
}

std::string Chosen::Here(const std::string& path) const {
  const bool absolute = context_.dir.empty() || path.starts_with('/');
  return absolute ? path : pnl_file::ConcatPath(context_.dir, path);
}

pnl_err::Error Chosen::Unknown(const std::string& name) const {
  const std::string nearest = inventory_.Nearest(name);
  std::string what = "is no node of the inventory";
  if (pnl_file::Info(Here(name)).Exists()) {
    what += "; write './" + name + "' for the file";
  } else if (!nearest.empty()) {
    what += "; did you mean '" + nearest + "'?";
  } else {
    what += ", no address, and no name with a dot";
  }
  return Wrong(name, what);
}

/// A line of it that is a name of the inventory means that node.
void Chosen::AddFile(const std::string& path) {
  const std::string file = Here(path);
  if (!pnl_file::Info(file).Exists()) throw Wrong(path, "is no file; a name of a node has no '/'");
  const Inventory named = Inventory::Load(file);
  for (const Node& node : named.Nodes()) {
    const Node* const known = inventory_.Find(node.name);
    AddNode(known != nullptr ? *known : node);
  }
}

void Chosen::AddNames(const std::string& word) {
  if (inventory_.Find(word) != nullptr) return AddName(word);
  try {
    for (const std::string& name : ExpandRange(word)) AddName(name);
  } catch (const std::invalid_argument& error) {
    throw Wrong(word, error.what());
  }
}

void Chosen::AddName(const std::string& name) {
  if (const Node* const node = inventory_.Find(name)) return AddNode(*node);
  if (!IsOutside(name)) throw Unknown(name);
  AddNode(NodeOutside(name));
}

void Chosen::AddNode(const Node& node) {
  const Node* const known = inventory_.Find(node.name);
  if (known != nullptr) {
    const auto index = static_cast<std::size_t>(known - inventory_.Nodes().data());
    (excludes_ ? not_inside_ : inside_).insert(index);
  } else if (excludes_) {
    not_outside_.insert(node.name);
  } else if (outside_names_.insert(node.name).second) {
    outside_.push_back(node);
  }
}

std::vector<Node> Chosen::Take() {
  std::vector<Node> nodes;
  for (const std::size_t index : inside_)
    if (!not_inside_.contains(index)) nodes.push_back(inventory_.Nodes()[index]);
  for (Node& node : outside_)
    if (!not_outside_.contains(node.name)) nodes.push_back(std::move(node));
  return nodes;
}

}  // namespace

std::vector<Node> Select(const Inventory& inventory, const std::string& selection,
                         const SelectionContext& context) {
  Chosen chosen(inventory, context);
  for (const std::string& word : SplitNames(selection)) chosen.Add(word);
  std::vector<Node> nodes = chosen.Take();
  if (nodes.empty()) throw Wrong(selection, "means no node");
  if (nodes.size() > kMaxNodes) throw Wrong(selection, "means more than 100,000 nodes");
  return nodes;
}

Node SelectOne(const Inventory& inventory, const std::string& word) {
  const Node* const node = inventory.Find(word);
  return node != nullptr ? *node : NodeOutside(word);
}

}  // namespace fleet
