#include "pnl/settings.h"

#include <mutex>
#include <optional>

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/str.h"

namespace pnl_settings {
namespace {

pnl_log::Module log_module("settings");

constexpr const char* kPath = "etc/brefir.conf";

using Values = std::map<std::string, std::string, std::less<>>;

Values Parse(std::string_view text) {
  Values values;
  while (!text.empty()) {
    std::string_view line = str::TrimView(str::NextWord(text, '\n'));
    if (line.empty() || line.front() == '#') continue;
    const std::string key = str::Trim(str::NextWord(line, '='));
    values[key] = str::Trim(line);
    if (!Defaults().contains(key))
      PNL_LOG(log_module, 4, "%s: there is no setting '%s'", kPath, key.c_str());
  }
  return values;
}

/// The file's values as of its last change.
class File {
 public:
  static File& Get() {
    static auto* const file = new File();
    return *file;
  }

  std::optional<std::string> Value(std::string_view key) {
    const std::lock_guard guard(mutex_);
    const pnl_file::Info now(kPath);
    if (!seen_ || !now.SameVersion(*seen_)) {
      values_ = Parse(pnl_file::Read(kPath));
      seen_ = now;
    }
    const auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    return found->second;
  }

 private:
  std::mutex mutex_;  // guards all below
  std::optional<pnl_file::Info> seen_;
  Values values_;
};

}  // namespace

std::string Get(std::string_view key) {
  const auto found = Defaults().find(key);
  if (found == Defaults().end()) throw pnl_err::Missed("setting", key);
  return File::Get().Value(key).value_or(found->second);
}

const Values& Defaults() {
  // Never destroyed: destructors of static objects still ask for settings.
  static const auto& defaults = *new const Values{
      {"download_server", "http://download.example.org"},
      {"known_hosts", ""},
      {"module_name", "panel"},
      {"module_version", "1.0"},
      {"nodes", ""},
      {"private_key", "etc/panel.key"},
      {"public_key", "etc/panel.key.pub"},
      {"recipe_dir", "var/recipes"},
      {"signing_key_server", "http://keys.example.org"},
      {"stat_database", "sqlite:var/stat.db"},
      {"template_dir", "templates"},
      {"template_location", "http://download.example.org/OSTemplate"},
  };
  return defaults;
}

}  // namespace pnl_settings
