#include "pnl/utf8.h"

#include <algorithm>

namespace utf8 {
namespace {

bool Continues(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

}  // namespace

Character First(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text.front());
  if (lead < 0x80) return {lead, 1, true};
  const std::size_t size = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < size) return {};
  char32_t code = lead & (0x7F >> size);
  for (std::size_t i = 1; i < size; ++i) {
    if (!Continues(text[i])) return {};
    code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3F);
  }
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kSmallest[size] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return {};
  return {code, size, true};
}

std::size_t Count(std::string_view text) {
  return text.size() - static_cast<std::size_t>(std::count_if(text.begin(), text.end(), Continues));
}

std::string_view Cut(std::string_view text, std::size_t size) {
  size = std::min(size, text.size());
  while (size < text.size() && size > 0 && Continues(text[size])) --size;
  return text.substr(0, size);
}

std::size_t Unfinished(std::string_view text) {
  std::size_t size = 0;
  while (size < std::min<std::size_t>(text.size(), 3) &&
         static_cast<unsigned char>(text[text.size() - size - 1]) >= 0x80) {
    ++size;
  }
  return size;
}

}  // namespace utf8
