#include "tools/commands/candidates.h"

#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "fleet/panel_dir.h"
#include "fleet/panel_names.h"
#include "pnl/file.h"
#include "pnl/settings.h"

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

/// The view of the panel in the working directory, with the options among the words.
fleet::PanelView PanelOf(const Words& words, const std::string& start_dir) {
  const auto setting = [&](const char* option, const char* key) {
    return OptionOf(words, option, pnl_settings::Get(key));
  };
  const auto dir = [&](const char* option, const char* key) {
    const std::string given = OptionOf(words, option, "");
    return given.empty() ? pnl_settings::Get(key)
                         : (std::filesystem::path(start_dir) / given).string();
  };
  return {dir("--templates", "template_dir"), dir("--recipes", "recipe_dir"),
          setting("--module", "module_name"), setting("--version", "module_version"), words};
}

}  // namespace

std::string Candidates(const std::string& list, const Words& words) {
  std::signal(SIGALRM, OnAlarm);
  alarm(1);  // a directory may be on a file server that does not answer
  try {
    const std::string start_dir = pnl_file::GetCurrentDir();
    const std::string prefix = OptionOf(words, "--prefix", "");
    if (chdir((prefix.empty() ? fleet::DefaultPrefix() : prefix).c_str()) != 0) return "";
    std::string lines;
    for (const std::string& item : fleet::PanelNames(list, PanelOf(words, start_dir)))
      if (item.find('\n') == std::string::npos) lines += item + "\n";
    return lines;
  } catch (const std::exception&) {
    return "";
  }
}

}  // namespace tools
