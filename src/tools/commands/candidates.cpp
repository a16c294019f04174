#include "tools/commands/candidates.h"

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <map>

#include "brefir/ostemplates.h"
#include "brefir/recipes.h"
#include "fleet/core_module.h"
#include "fleet/node_names.h"
#include "pnl/file.h"
#include "pnl/settings.h"
#include "pnl/task.h"
#include "tools/frame/prefix.h"

namespace tools {
namespace {

using Words = std::vector<std::string>;

extern "C" void OnAlarm(int /*number*/) {
  _exit(0);
}

/// The value of an option among the words, else `otherwise`.
std::string OptionOf(const Words& words, const std::string& option, std::string otherwise) {
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] == option && i + 1 < words.size()) otherwise = words[i + 1];
    if (words[i].starts_with(option + "=")) otherwise = words[i].substr(option.size() + 1);
  }
  return otherwise;
}

/// A panel, whose directory is the working directory, as the words of a command line mean it.
struct Panel {
  std::string Setting(const std::string& option, const std::string& key) const {
    return OptionOf(words, option, pnl_settings::Get(key));
  }
  std::string Dir(const std::string& option, const std::string& key) const {
    const std::string dir = OptionOf(words, option, "");
    return dir.empty() ? pnl_settings::Get(key) : (std::filesystem::path(start_dir) / dir).string();
  }
  std::string TemplateDir() const { return Dir("--templates", "template_dir"); }
  ostemplate::Manage Catalogue() const {
    return {Setting("--module", "module_name"), Setting("--version", "module_version"),
            TemplateDir(), ""};
  }

  const Words& words;
  std::string start_dir;
};

template <class Map>
StringSet KeysOf(const Map& map) {
  StringSet keys;
  for (const auto& [key, value] : map) keys.insert(keys.end(), key);
  return keys;
}

StringSet Installed(const Panel& panel) {
  StringSet keys;
  for (pnl_file::Dir dir(panel.TemplateDir()); dir.Read();) {
    if (pnl_file::Exists(ostemplate::MetaInfoFile(dir.FullName()))) keys.insert(dir.name());
  }
  return keys;
}

StringSet Templates(const Panel& panel) {
  StringSet keys = panel.Catalogue().GetCachedKeys();
  if (pnl_file::IsDir(panel.TemplateDir())) keys.merge(Installed(panel));
  return keys;
}

StringSet Macros(const Panel& panel) {
  ostemplate::TemplateMacroMap macros;
  const StringSet installed = Installed(panel);
  for (const std::string& word : panel.words) {
    if (installed.contains(word)) panel.Catalogue().GetOsTemplateMacros(word, macros);
  }
  return KeysOf(macros);
}

StringSet Repositories(const Panel& /*panel*/) {
  StringSet names = KeysOf(ostemplate::OstRepo("").repos);
  names.merge(KeysOf(recipe::RecipeRepo().repos));
  names.insert(recipe::kLocalSource);
  return names;
}

StringSet Recipes(const Panel& panel) {
  const recipe::Manage manage("", panel.Dir("--recipes", "recipe_dir"));
  recipe::RecipeMap recipes;
  manage.GetLocal(recipes);
  if (const std::string top = manage.RepoDir(); pnl_file::IsDir(top)) {
    for (pnl_file::Dir dir(top); dir.Read();)
      manage.GetFromDir(dir.FullName(), dir.name(), recipes);
  }
  return KeysOf(recipes);
}

StringSet Tasks(const Panel& /*panel*/) {
  StringSet ids;
  for (const pnl_task::Status& status : pnl_task::List()) ids.insert(status.id);
  return ids;
}

StringSet Listen(const Panel& /*panel*/) {
  StringSet ids;
  const pnl_xml::Xml list = fleet::CallCore("frontd", {});
  for (const pnl_xml::XmlNode& elem : list.GetNodes("/doc/elem"))
    ids.insert(elem.FindNode("port").Str());
  return ids;
}

StringSet Nodes(const Panel& /*panel*/) {
  const std::string nodes = pnl_settings::Get("nodes");
  const Words named = fleet::NodesNamed(nodes, nodes);
  return {named.begin(), named.end()};
}

const std::map<std::string, StringSet (*)(const Panel& panel)> kLists = {
    {"templates", Templates}, {"installed", Installed},
    {"macros", Macros},       {"repositories", Repositories},
    {"recipes", Recipes},     {"tasks", Tasks},
    {"listen", Listen},       {"nodes", Nodes},
};

}  // namespace

std::string Candidates(const std::string& list, const Words& words) {
  std::signal(SIGALRM, OnAlarm);
  alarm(1);  // a directory of this host may be one of a server that is away
  try {
    const std::string start_dir = pnl_file::GetCurrentDir();
    const std::string prefix = OptionOf(words, "--prefix", "");
    if (chdir((prefix.empty() ? DefaultPrefix() : prefix).c_str()) != 0) return "";
    std::string lines;
    for (const std::string& item : kLists.at(list)({words, start_dir}))
      if (item.find('\n') == std::string::npos) lines += item + "\n";
    return lines;
  } catch (const std::exception&) {
    return "";
  }
}

}  // namespace tools
