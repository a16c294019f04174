// The values of an installed template's macros.

#include <string>

#include "brefir/ostemplates.h"
#include "check.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "pnl/str.h"

namespace {

constexpr const char* kTemplate = "main__Fuzz-1";
constexpr const char* kFile = "templates/main__Fuzz-1/templatemacros.values";

StringMap Values(ostemplate::Manage& manage) {
  StringMap values;
  fuzz::Check(manage.GetMacroCustomValues(kTemplate, values) == kFile, "the file's name");
  return values;
}

/// Whether a name or value comes back as it was written: the file has no quotes.
bool IsPlain(const std::string& text) {
  return text == str::Trim(text) && text.find('\n') == std::string::npos;
}
bool IsName(const std::string& text) {
  return !text.empty() && IsPlain(text) && text.find('\t') == std::string::npos;
}

}  // namespace

/// A name, then a value to set or none to reset, then the file.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(fuzz::Text(data, size));
  const std::string name = str::GetWord(text, '\n');
  const std::string value = str::GetWord(text, '\n');
  fuzz::Put(kFile, text);
  ostemplate::Manage manage("fuzz", "1.0", "templates", "");
  StringMap values = Values(manage);
  if (value.empty()) {
    manage.ResetOsTemplateMacroValue(kTemplate, name);
    values.erase(name);
  } else {
    fuzz::Check(manage.SetOsTemplateMacroValue(kTemplate, name, value), "the template is there");
    values[name] = value;
  }
  fuzz::Check(pnl_file::Read(kFile) == text, "the file stays until the commit");
  pnl_job::Commit();
  if (value.empty() || (IsName(name) && IsPlain(value)))
    fuzz::Check(Values(manage) == values, "one value changes, the others stay");
  return 0;
}
