// Splitting, joining and unquoting of texts.

#include <string>

#include "brefir/str_utils.h"
#include "check.h"
#include "pnl/str.h"

namespace {

/// Pieces that a joined map is made of hold no separator, so that it splits back into itself.
void CheckParams(const std::string& text) {
  const StringMap params = str::SplitParamsRaw(text, "&", "=");
  const StringMap again = str::SplitParamsRaw(str::JoinParams(params, "&", "="), "&", "=");
  // An empty key with an empty value joins to "=", which splits back; nothing else may change.
  fuzz::Check(params == again, "parameters split back");
}

void CheckUnquote(const std::string& text) {
  const std::string trimmed = str::Trim(text);
  const std::string inside = str::Unquote(text, "\"", "");
  if (inside != trimmed) fuzz::Check("\"" + inside + "\"" == trimmed, "one pair of quotes went");
  fuzz::Check(str::Unquote("[" + text + "]", "[", "]") == text, "brackets go");
  fuzz::Check(str::HasTail(text, ""), "every text has an empty tail");
}

void CheckWords(const std::string& text) {
  std::string joined;
  for (std::string rest = text + ","; !rest.empty();) joined += str::GetWord(rest, ",") + ",";
  fuzz::Check(joined == text + ",", "words and separators make the text");
}

void CheckConfig(const std::string& text) {
  StringMap plain;
  str::SplitConfig(text, plain);
  StringMap map;
  str::SplitConfig(text, map, "=", "#");
  for (const auto& [key, value] : map) {
    fuzz::Check(key == str::Trim(key) && value == str::Trim(value), "keys and values are trimmed");
    fuzz::Check(key.find('=') == std::string::npos, "a key ends at the first separator");
  }
  std::string rest;
  (void)str::ToUInt32(text, rest, 0);
  fuzz::Check(text.ends_with(rest), "what a number leaves is the end of the text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(fuzz::Text(data, size));
  CheckParams(text);
  CheckUnquote(text);
  CheckWords(text);
  CheckConfig(text);
  return 0;
}
