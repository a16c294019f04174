// The header parser of recipes, and the end of a script's output.

#include <algorithm>
#include <string>

#include "brefir/recipes.h"
#include "check.h"

namespace {

/// A simple model of TruncateOutput: the last 5120 bytes one by one.
std::string Model(std::string_view text) {
  if (text.size() > 5120) text.remove_prefix(text.size() - 5120);
  std::string shown;
  std::size_t skip = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const int byte = static_cast<unsigned char>(text[i]);
    const int next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    if (skip > 0) {
      --skip;
    } else if (byte > 127) {
      skip = next > 127 ? 2 : 1;
    } else if (byte == '\n' || (byte > 31 && byte < 127)) {
      shown += text[i];
    }
  }
  return shown;
}

void CheckHeader(std::string_view text) {
  recipe::RecipeInfo info;
  info.content = text;
  const recipe::Manage catalogue("fuzz", ".");
  catalogue.ParseContent(info);
  fuzz::Check(info.content == text, "the content stays");
  fuzz::Check(info.name.find('\n') == std::string::npos, "a name is of one line");
  if (text.find("metadata_begin") == std::string_view::npos)
    fuzz::Check(info.name.empty() && info.tags.empty(), "without a block there is no header");
  for (const std::string& tag : info.tags)
    fuzz::Check(tag.find(',') == std::string::npos, "a tag has no comma");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = fuzz::Text(data, size);
  fuzz::Check(recipe::TruncateOutput(text) == Model(text), "the end of the output");
  CheckHeader(text);
  return 0;
}
