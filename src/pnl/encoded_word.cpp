#include "pnl/host.h"

namespace pnl_host {

std::string EncodedWord(std::string_view text) {
  static constexpr char kDigits[] = "01234567";
  std::string word;
  for (const char c : text) {
    const bool plain = c > ' ' && c <= '~' && c != '\'' && c != '!' && c != '\\';
    if (plain) {
      word += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    word += "\\0";
    for (const int shift : {6, 3, 0}) word += kDigits[(byte >> shift) & 7];
  }
  return word;
}

}  // namespace pnl_host
