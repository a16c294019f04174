#include "pnl/utf8.h"

#include <algorithm>
#include <iterator>

#include "pnl/str.h"

namespace utf8 {
namespace {

bool Continues(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

struct Range {
  char32_t first;
  char32_t last;
};

template <std::size_t N>
bool Within(const Range (&ranges)[N], char32_t code) {
  const Range* found = std::lower_bound(std::begin(ranges), std::end(ranges), code,
                                        [](Range range, char32_t c) { return range.last < c; });
  return found != std::end(ranges) && found->first <= code;
}

// Own tables, so that widths do not depend on the locale: wcwidth(3) does not work in "C".

/// Combining marks, joiners and selectors of the scripts in use.
constexpr Range kNoWidth[] = {
    {0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD}, {0x0610, 0x061A},   {0x064B, 0x065F},
    {0x0900, 0x0902}, {0x093C, 0x093C}, {0x0941, 0x0948}, {0x0E31, 0x0E31},   {0x0E34, 0x0E3A},
    {0x0E47, 0x0E4E}, {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF}, {0x200B, 0x200D},   {0x2060, 0x2064},
    {0x20D0, 0x20FF}, {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F}, {0xE0100, 0xE01EF},
};

/// East Asian wide and full-width characters, emoji.
constexpr Range kWide[] = {
    {0x1100, 0x115F},   {0x2E80, 0x303E},   {0x3041, 0xA4CF},   {0xA960, 0xA97F},
    {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},   {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},
    {0xFFE0, 0xFFE6},   {0x1F300, 0x1F64F}, {0x1F680, 0x1F6FF}, {0x1F900, 0x1F9FF},
    {0x20000, 0x3FFFD},
};

/// Marks that change the direction of what follows, and line separators.
constexpr Range kReordering[] = {
    {0x061C, 0x061C}, {0x200E, 0x200F}, {0x2028, 0x202E}, {0x2066, 0x2069}, {0xFEFF, 0xFEFF},
};

std::size_t Width(const Character& character) {
  if (Within(kNoWidth, character.code)) return 0;
  return Within(kWide, character.code) ? 2 : 1;
}

bool MustEscape(char32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0) || Within(kReordering, code);
}

std::string Escaped(char32_t code) {
  if (code == '\n') return "\\n";
  if (code == '\t') return "\\t";
  if (code == '\r') return "\\r";
  return str::Format(code < 0x100 ? "\\x%02x" : "\\u%04x", static_cast<unsigned>(code));
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

std::string Printable(std::string_view text, std::string_view keep) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const Character character = First(text);
    if (!character.valid) {
      out += "\xEF\xBF\xBD";
    } else if (MustEscape(character.code) && keep.find(text.front()) == std::string_view::npos) {
      out += Escaped(character.code);
    } else {
      out += text.substr(0, character.size);
    }
    text.remove_prefix(character.size);
  }
  return out;
}

std::size_t Columns(std::string_view text) {
  std::size_t columns = 0;
  while (!text.empty()) {
    const Character character = First(text);
    columns += Width(character);
    text.remove_prefix(character.size);
  }
  return columns;
}

std::string Padding(std::string_view text, std::size_t width) {
  return std::string(width - std::min(width, Columns(text)), ' ');
}

std::string_view Fitting(std::string_view text, std::size_t columns) {
  std::size_t end = 0;
  while (end < text.size()) {
    const Character character = First(text.substr(end));
    const std::size_t width = Width(character);
    if (width > columns) break;
    columns -= width;
    end += character.size;
  }
  return text.substr(0, end);
}

}  // namespace utf8
