#include "tools/commands/candidates.h"

#include <unistd.h>

#include <csignal>
#include <filesystem>

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

/// A directory of this host may be one of a server that is away.
void EndSoon() {
  std::signal(SIGALRM, OnAlarm);
  alarm(1);
}

/// The value of an option among the words, else `otherwise`.
std::string OptionOf(const Words& words, const std::string& option, std::string otherwise) {
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] == option && i + 1 < words.size()) otherwise = words[i + 1];
    if (words[i].starts_with(option + "=")) otherwise = words[i].substr(option.size() + 1);
  }
  return otherwise;
}

/// The lists of one panel, whose directory is the working directory.
class Panel {
 public:
  Panel(const Words& words, const std::string& start_dir) : words_(words), start_dir_(start_dir) {}

  StringSet Installed() const {
    StringSet keys;
    for (pnl_file::Dir dir(TemplateDir()); dir.Read();) {
      if (pnl_file::Exists(ostemplate::MetaInfoFile(dir.FullName()))) keys.insert(dir.name());
    }
    return keys;
  }

  StringSet Templates() const {
    StringSet keys;
    if (pnl_file::IsDir(TemplateDir())) keys = Installed();
    if (!pnl_file::IsDir(ostemplate::kCacheDir)) return keys;  // the catalogue would fetch it
    ostemplate::OsInfoMap offered;
    Catalogue().GetCachedTemplates(offered, "", nullptr);
    for (const auto& [key, info] : offered) keys.insert(key);
    return keys;
  }

  StringSet Macros() const {
    ostemplate::TemplateMacroMap macros;
    const StringSet installed = Installed();
    for (const std::string& word : words_) {
      if (installed.contains(word)) Catalogue().GetOsTemplateMacros(word, macros);
    }
    StringSet names;
    for (const auto& [name, info] : macros) names.insert(name);
    return names;
  }

  static StringSet Repositories() {
    StringSet names = {recipe::kLocalSource};
    for (const auto& [name, info] : ostemplate::OstRepo("").repos) names.insert(name);
    for (const auto& [name, info] : recipe::RecipeRepo().repos) names.insert(name);
    return names;
  }

  StringSet Recipes() const {
    const std::string top = Dir("--recipes", "recipe_dir");
    const recipe::Manage manage("", top);
    recipe::RecipeMap recipes;
    manage.GetLocal(recipes);
    const std::string repositories = manage.RepoDir();
    if (pnl_file::IsDir(repositories)) {
      for (pnl_file::Dir dir(repositories); dir.Read();)
        manage.GetFromDir(dir.FullName(), dir.name(), recipes);
    }
    StringSet ids;
    for (const auto& [id, info] : recipes) ids.insert(id);
    return ids;
  }

  static StringSet Tasks() {
    StringSet ids;
    for (const pnl_task::Status& status : pnl_task::List()) ids.insert(status.id);
    return ids;
  }

  static StringSet Listen() {
    StringSet ids;
    const pnl_xml::Xml list = fleet::CallCore("frontd", {});
    for (const pnl_xml::XmlNode& elem : list.GetNodes("/doc/elem"))
      ids.insert(elem.FindNode("port").Str());
    return ids;
  }

  static StringSet Nodes() {
    const std::string nodes = pnl_settings::Get("nodes");
    const Words named = fleet::NodesNamed(nodes, nodes);
    return {named.begin(), named.end()};
  }

 private:
  std::string Dir(const std::string& option, const std::string& key) const {
    const std::string dir = OptionOf(words_, option, "");
    return dir.empty() ? pnl_settings::Get(key)
                       : (std::filesystem::path(start_dir_) / dir).string();
  }
  std::string TemplateDir() const { return Dir("--templates", "template_dir"); }
  ostemplate::Manage Catalogue() const {
    using pnl_settings::Get;
    return {Get("module_name"), Get("module_version"), TemplateDir(), ""};
  }

  const Words& words_;
  const std::string& start_dir_;
};

StringSet Listed(const Panel& panel, const std::string& list) {
  if (list == "templates") return panel.Templates();
  if (list == "installed") return panel.Installed();
  if (list == "macros") return panel.Macros();
  if (list == "repositories") return Panel::Repositories();
  if (list == "recipes") return panel.Recipes();
  if (list == "tasks") return Panel::Tasks();
  if (list == "listen") return Panel::Listen();
  if (list == "nodes") return Panel::Nodes();
  return {};
}

}  // namespace

std::string Candidates(const std::string& list, const Words& words) {
  EndSoon();
  try {
    const std::string start_dir = pnl_file::GetCurrentDir();
    const std::string prefix = OptionOf(words, "--prefix", "");
    if (chdir((prefix.empty() ? DefaultPrefix() : prefix).c_str()) != 0) return "";
    std::string lines;
    for (const std::string& item : Listed(Panel(words, start_dir), list))
      if (item.find('\n') == std::string::npos) lines += item + "\n";
    return lines;
  } catch (const std::exception&) {
    return "";
  }
}

}  // namespace tools
