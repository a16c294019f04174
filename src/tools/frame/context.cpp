#include "tools/frame/context.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "console/terminal.h"
#include "pnl/file.h"
#include "pnl/settings.h"

namespace tools {

std::string Context::Path(const std::string& word) const {
  if (word.empty()) {
    throw UsageError(
        "path", "",
        "an empty word on the command line is not the path of a file or directory of this host");
  }
  const std::filesystem::path path = std::filesystem::path(start_dir_) / word;
  // Without the "/" a file would be found, but the user meant a directory.
  if (word.ends_with('/') && pnl_file::Exists(path.parent_path()) && !pnl_file::IsDir(path))
    throw pnl_err::System("open", word, ENOTDIR);
  const std::filesystem::path normal = path.lexically_normal();
  return normal.has_filename() ? normal : normal.parent_path();  // no "/" at the end
}

std::string Context::Setting(std::string_view option, std::string_view key) const {
  return values.Has(option) ? values.Str(option) : pnl_settings::Get(key);
}

std::string Context::PathSetting(std::string_view option, std::string_view key) const {
  return values.Has(option) ? Path(values.Str(option)) : pnl_settings::Get(key);
}

void Context::Report(const pnl_err::Error& error) {
  Warn(error);
  failed_ = true;
}

void Context::Warn(const pnl_err::Error& error) {
  bar.Clear();
  TellError(error, out.GetFormat());
}

bool Context::OnlyShows() const {
  return values.HasAtAll("dry-run") || values.HasAtAll("save-plan");
}

bool Context::OnlyPlans() const {
  return OnlyShows() || values.HasAtAll("check");
}

bool Context::HasNodes() const {
  return origin_ == Origin::kLineOfNodes || values.HasAtAll("node") || values.HasAtAll("nodes");
}

void TellError(const pnl_err::Error& error, Format format) {
  const std::string name = console::Styled("brefirctl:", console::kRed, STDERR_FILENO) + " ";
  const std::string prefix = format == Format::kJson ? "" : name;
  // One call, so that lines of several processes do not mix on a terminal.
  std::fputs((prefix + ErrorText(error, format) + "\n").c_str(), stderr);
}

std::int64_t NumberSetting(const std::string& key, std::int64_t least) {
  const std::string value = pnl_settings::Get(key);
  const std::int64_t number = str::Int64(value);
  if (number >= least && std::to_string(number) == value) return number;
  throw pnl_err::Error("setting", key, value)
      .add_param("message", key + " in etc/brefir.conf must be a number of at least " +
                                std::to_string(least) + ", not '" + value + "'");
}

}  // namespace tools
