#include "fleet/panel_names.h"

#include <map>

#include "brefir/ostemplates.h"
#include "brefir/recipes.h"
#include "fleet/core_module.h"
#include "fleet/fleet_database.h"
#include "fleet/inventory.h"
#include "fleet/journal.h"
#include "fleet/node_range.h"
#include "pnl/file.h"
#include "pnl/settings.h"
#include "pnl/task.h"

namespace fleet {
namespace {

ostemplate::Manage Catalogue(const PanelView& panel) {
  return {panel.module_name, panel.module_version, panel.template_dir, ""};
}

template <class Map>
StringSet KeysOf(const Map& map) {
  StringSet keys;
  for (const auto& [key, value] : map) keys.insert(keys.end(), key);
  return keys;
}

StringSet Installed(const PanelView& panel) {
  StringSet keys;
  for (pnl_file::Dir dir(panel.template_dir); dir.Read();) {
    if (pnl_file::Exists(ostemplate::MetaInfoFile(dir.FullName()))) keys.insert(dir.name());
  }
  return keys;
}

StringSet Templates(const PanelView& panel) {
  StringSet keys = Catalogue(panel).GetCachedKeys();
  if (pnl_file::IsDir(panel.template_dir)) keys.merge(Installed(panel));
  return keys;
}

StringSet Macros(const PanelView& panel) {
  ostemplate::TemplateMacroMap macros;
  const StringSet installed = Installed(panel);
  for (const std::string& word : panel.keys) {
    if (installed.contains(word)) Catalogue(panel).GetOsTemplateMacros(word, macros);
  }
  return KeysOf(macros);
}

StringSet Repositories(const PanelView& /*panel*/) {
  StringSet names = KeysOf(ostemplate::OstRepo("").repos);
  names.merge(KeysOf(recipe::RecipeRepo().repos));
  names.insert(recipe::kLocalSource);
  return names;
}

StringSet Recipes(const PanelView& panel) {
  const recipe::Manage manage("", panel.recipe_dir);
  recipe::RecipeMap recipes;
  manage.GetLocal(recipes);
  if (const std::string top = manage.RepoDir(); pnl_file::IsDir(top)) {
    for (pnl_file::Dir dir(top); dir.Read();)
      manage.GetFromDir(dir.FullName(), dir.name(), recipes);
  }
  return KeysOf(recipes);
}

StringSet Tasks(const PanelView& /*panel*/) {
  StringSet ids;
  for (const pnl_task::Status& status : pnl_task::List()) ids.insert(status.id);
  return ids;
}

StringSet Listen(const PanelView& /*panel*/) {
  StringSet ids;
  const pnl_xml::Xml list = CallCore("frontd", {});
  for (const pnl_xml::XmlNode& elem : list.GetNodes("/doc/elem"))
    ids.insert(elem.FindNode("port").Str());
  return ids;
}

/// The setting may be a list of addresses, too; they stand in no file.
StringSet NodeNames(const Inventory& inventory, const std::string& path) {
  StringSet names;
  for (const Node& node : inventory.Nodes()) names.insert(node.name);
  const std::string nodes = pnl_settings::Get("nodes");
  if (nodes == path || nodes.find('/') != std::string::npos) return names;
  for (const std::string& address : SplitNames(nodes)) names.insert(address);
  return names;
}

StringSet Nodes(const PanelView& /*panel*/) {
  const std::string path = InventoryPath();
  return NodeNames(Inventory::Load(path), path);
}

StringSet Selections(const PanelView& /*panel*/) {
  const std::string path = InventoryPath();
  const Inventory inventory = Inventory::Load(path);
  StringSet words = NodeNames(inventory, path);
  for (const std::string& group : inventory.Groups()) words.insert("@" + group);
  words.insert({"@all", "@failed"});
  return words;
}

StringSet Runs(const PanelView& /*panel*/) {
  StringSet ids;
  if (!HasFleetDatabase()) return ids;
  for (const RunHead& run : Journal(OpenFleetDatabase()).Runs()) ids.insert(str::Str(run.id));
  return ids;
}

}  // namespace

StringSet PanelNames(const std::string& list, const PanelView& panel) {
  static const auto* const lists = new std::map<std::string, StringSet (*)(const PanelView&)>{
      {"templates", Templates},   {"installed", Installed},
      {"macros", Macros},         {"repositories", Repositories},
      {"recipes", Recipes},       {"tasks", Tasks},
      {"listen", Listen},         {"nodes", Nodes},
      {"selections", Selections}, {"runs", Runs},
  };
  return lists->at(list)(panel);
}

}  // namespace fleet
