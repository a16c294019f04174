#include "tools/command.h"

#include <cstdio>

#include "pnl/file.h"
#include "pnl/settings.h"

namespace tools {

std::string Context::Path(const std::string& word) const {
  return word.starts_with("/") ? word : pnl_file::ConcatPath(start_dir_, word);
}

std::string Context::Setting(std::string_view option, std::string_view key) const {
  return values.Has(option) ? values.Str(option) : pnl_settings::Get(key);
}

std::string Context::PathSetting(std::string_view option, std::string_view key) const {
  return values.Has(option) ? Path(values.Str(option)) : pnl_settings::Get(key);
}

void Context::Report(const pnl_err::Error& error) {
  bar.Clear();
  TellError(error, out.GetFormat());
  failed_ = true;
}

void TellError(const pnl_err::Error& error, Format format) {
  const std::string prefix = format == Format::kTable ? "brefirctl: " : "";
  // One call: lines of several processes on one terminal do not mix.
  std::fputs((prefix + ErrorText(error, format) + "\n").c_str(), stderr);
}

}  // namespace tools
