#include "fleet/named_words.h"

#include "pnl/err.h"

namespace fleet {

std::string WordsText(const NamedWords& words, char separator) {
  std::string text;
  for (const auto& [name, value] : words) {
    if (value.empty()) continue;
    if (!text.empty()) text += separator;
    text.append(name).append("=").append(str::PercentEncode(
        value, [](char c) { return c > ' ' && c <= '~' && c != '%' && c != ',' && c != ';'; }));
  }
  return text;
}

StringMap ReadWords(std::string_view text, const char* what, char separator) {
  StringMap words;
  while (!text.empty()) {
    std::string_view word = str::NextWord(text, separator);
    const std::string name(str::NextWord(word, '='));
    if (!str::PercentDecode(word, words[name]))
      throw pnl_err::Error(what, "read", word)
          .add_param("message", std::string("the journal has a ") + what +
                                    " that cannot be read: '" + std::string(word) + "'");
  }
  return words;
}

}  // namespace fleet
