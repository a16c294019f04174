#include "pnl/settings.h"

#include <map>
#include <mutex>
#include <optional>

#include "pnl/file.h"
#include "pnl/str.h"

namespace pnl_settings {
namespace {

constexpr const char* kPath = "etc/brefir.conf";

using Values = std::map<std::string, std::string, std::less<>>;

const Values& Defaults() {
  static const Values defaults = {
      {"download_server", "http://download.example.org"},
      {"recipe_dir", "var/recipes"},
      {"signing_key_server", "http://keys.example.org"},
      {"module_name", "panel"},
      {"module_version", "1.0"},
      {"private_key", "etc/panel.key"},
      {"public_key", "etc/panel.key.pub"},
      {"stat_database", "sqlite:var/stat.db"},
      {"template_dir", "templates"},
      {"template_location", "http://download.example.org/OSTemplate"},
  };
  return defaults;
}

Values Parse(std::string_view text) {
  Values values;
  while (!text.empty()) {
    std::string_view line = str::TrimView(str::NextWord(text, '\n'));
    if (line.empty() || line.front() == '#') continue;
    const std::string key = str::Trim(str::NextWord(line, '='));
    values[key] = str::Trim(line);
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
  if (const auto value = File::Get().Value(key)) return *value;
  const auto found = Defaults().find(key);
  return found == Defaults().end() ? "" : found->second;
}

}  // namespace pnl_settings
