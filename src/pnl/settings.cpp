#include "pnl/settings.h"
#include "pnl/layout.h"

#include <mutex>
#include <optional>

#include "pnl/err.h"
#include "pnl/log.h"
#include "pnl/reread.h"
#include "pnl/str.h"

namespace pnl_settings {
namespace {

pnl_log::Module log_module("settings");

using Values = std::map<std::string, std::string, std::less<>>;

Values Parse(std::string_view text) {
  Values values;
  while (!text.empty()) {
    std::string_view line = str::TrimView(str::NextWord(text, '\n'));
    if (line.empty() || line.front() == '#') continue;
    const std::string key = str::Trim(str::NextWord(line, '='));
    values[key] = str::Trim(line);
    if (!Defaults().contains(key))
      PNL_LOG(log_module, 4, "%s: there is no setting '%s'", pnl_layout::kSettings, key.c_str());
  }
  return values;
}

std::optional<std::string> InFile(std::string_view key) {
  static auto& mutex = *new std::mutex();  // never destroyed, as Defaults
  static auto& file = *new pnl_file::Reread<Values>(pnl_layout::kSettings);
  const std::lock_guard guard(mutex);
  const Values& values = file.Get([] { return Parse(pnl_file::Read(pnl_layout::kSettings)); });
  const auto found = values.find(key);
  return found == values.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace

std::string Get(std::string_view key) {
  const auto found = Defaults().find(key);
  if (found == Defaults().end()) throw pnl_err::Missed("setting", key);
  return InFile(key).value_or(found->second);
}

const Values& Defaults() {
  // Never destroyed: destructors of static objects still ask for settings.
  static const auto& defaults = *new const Values{
      {"download_server", "http://download.example.org"},
      {"fleet_database", "sqlite:var/fleet.db"},
      {"forks", "64"},
      {"journal_file_limit", "1048576"},
      {"known_hosts", ""},
      {"max_sessions", "512"},
      {"module_name", "panel"},
      {"module_version", "1.0"},
      {"nodes", ""},
      {"private_key", "etc/panel.key"},
      {"public_key", "etc/panel.key.pub"},
      {"recipe_dir", "var/recipes"},
      {"run_retention", "90"},
      {"signing_key_server", "http://keys.example.org"},
      {"ssh_config", "no"},
      {"stat_database", "sqlite:var/stat.db"},
      {"template_dir", "templates"},
      {"template_location", "http://download.example.org/OSTemplate"},
  };
  return defaults;
}

}  // namespace pnl_settings
