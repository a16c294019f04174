#include "fleet/node_range.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <map>
#include <set>
#include <stdexcept>
#include <utility>

#include "pnl/str.h"
#include "pnl/test.h"

namespace fleet {
namespace {

// Numbers of more digits are part of the name.
constexpr std::size_t kMaxDigits = 9;

/// Numbers from one to another, written with at least `width` digits.
struct Span {
  std::uint32_t first = 0;
  std::uint32_t last = 0;
  std::size_t width = 0;

  std::size_t Count() const { return std::size_t{last} - first + 1; }
};

/// A word in pieces: text, and what one bracket behind it stands for.
struct Piece {
  std::string_view text;
  std::vector<Span> spans = {};  // empty behind the last bracket

  std::size_t Count() const {
    std::size_t count = 0;
    for (const Span& span : spans) count += span.Count();
    return std::max<std::size_t>(count, 1);
  }
};

std::invalid_argument NoRange(std::string_view bracket) {
  return std::invalid_argument("has [" + std::string(bracket) +
                               "], which is no range; write numbers, as in [1-9,12] or [01-40]");
}

std::invalid_argument TooMany() {
  return std::invalid_argument("stands for more than 100,000 names");
}

std::uint32_t ParseNumber(std::string_view digits, std::string_view bracket) {
  if (!test::Numeric(digits)) throw NoRange(bracket);
  if (digits.size() > kMaxDigits)
    throw std::invalid_argument("has a number of more than nine digits");
  std::uint32_t number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number;
}

Span ParseSpan(std::string_view text, std::string_view bracket) {
  const std::size_t dash = text.find('-');
  const std::string_view first = text.substr(0, dash);
  const std::string_view last = dash == std::string_view::npos ? first : text.substr(dash + 1);
  Span span{ParseNumber(first, bracket), ParseNumber(last, bracket)};
  if (first.size() > 1 && first.front() == '0') span.width = first.size();
  const bool wide = last.size() > 1 && last.front() == '0';
  if (span.width > 0 ? last.size() != span.width : wide) {
    throw std::invalid_argument("has [" + std::string(bracket) +
                                "], numbers of different widths; write [01-40] or [1-40]");
  }
  if (span.first > span.last)
    throw std::invalid_argument("has [" + std::string(bracket) +
                                "], which goes down; begin with the least number");
  return span;
}

std::vector<Span> ParseSpans(std::string_view bracket) {
  std::vector<std::string> parts;
  str::Split(bracket, ",", parts);
  if (parts.empty()) throw NoRange(bracket);
  std::vector<Span> spans;
  spans.reserve(parts.size());
  for (const std::string& part : parts) spans.push_back(ParseSpan(part, bracket));
  return spans;
}

bool IsIp6Bracket(std::string_view word, std::size_t open) {
  return open == 0 || word[open - 1] == '@';
}

std::vector<Piece> Pieces(std::string_view word) {
  std::vector<Piece> pieces;
  std::size_t begin = 0;
  for (std::size_t at = word.find_first_of("[]"); at != std::string_view::npos;) {
    const std::size_t close = word.find(']', at);
    if (word[at] == ']' || close == std::string_view::npos)
      throw std::invalid_argument("has a bracket without its other half");
    if (!IsIp6Bracket(word, at)) {
      pieces.push_back(
          {word.substr(begin, at - begin), ParseSpans(word.substr(at + 1, close - at - 1))});
      begin = close + 1;
    }
    at = word.find_first_of("[]", close + 1);
  }
  pieces.push_back({word.substr(begin)});
  return pieces;
}

std::string Digits(std::uint32_t number, std::size_t width) {
  std::string digits = std::to_string(number);
  return digits.size() < width ? std::string(width - digits.size(), '0') + digits : digits;
}

/// Each of `heads` with each that the piece stands for.
std::vector<std::string> Extended(const std::vector<std::string>& heads, const Piece& piece) {
  std::vector<std::string> names;
  names.reserve(heads.size() * piece.Count());
  for (const std::string& head : heads) {
    const std::string text = head + std::string(piece.text);
    if (piece.spans.empty()) names.push_back(text);
    for (const Span& span : piece.spans)
      for (std::uint32_t n = span.first; n <= span.last; ++n)
        names.push_back(text + Digits(n, span.width));
  }
  return names;
}

/// A name as the text before its last number, the number, and the text behind it.
struct Split {
  std::string_view head, digits, tail;
};

Split SplitAtNumber(std::string_view name) {
  const auto is_digit = [](char c) { return test::Numeric(c); };
  const auto end = std::find_if(name.rbegin(), name.rend(), is_digit).base();
  const auto begin = std::find_if_not(std::make_reverse_iterator(end), name.rend(), is_digit);
  const auto at = static_cast<std::size_t>(begin.base() - name.begin());
  const auto size = static_cast<std::size_t>(end - begin.base());
  const bool address = test::Ip6(name) || name.find_first_of("[]") != std::string_view::npos;
  // Nothing is folded where ExpandRange takes a bracket for an address.
  if (size == 0 || size > kMaxDigits || address || IsIp6Bracket(name, at)) return {name, {}, {}};
  return {name.substr(0, at), name.substr(at, size), name.substr(at + size)};
}

/// Names of the same head, tail and width.
using Family = std::pair<std::pair<std::string_view, std::string_view>, std::size_t>;

/// Digits of a number without leading zeros have the width 0: they go with numbers of any length.
Family FamilyOf(const Split& name) {
  if (name.digits.empty()) return {{name.head, name.tail}, std::string_view::npos};
  const bool padded = name.digits.size() > 1 && name.digits.front() == '0';
  return {{name.head, name.tail}, padded ? name.digits.size() : 0};
}

std::string Folded(const Family& family, const std::set<std::uint32_t>& numbers) {
  const auto& [texts, width] = family;
  std::string spans;
  for (auto number = numbers.begin(); number != numbers.end();) {
    const std::uint32_t first = *number;
    std::uint32_t last = first;
    while (++number != numbers.end() && *number == last + 1) last = *number;
    spans = str::Append(spans, Digits(first, width), ",");
    if (last > first) spans += "-" + Digits(last, width);
  }
  if (numbers.size() > 1) spans = "[" + spans + "]";
  return std::string(texts.first) + spans + std::string(texts.second);
}

}  // namespace

std::vector<std::string> ExpandRange(std::string_view word) {
  const std::vector<Piece> pieces = Pieces(word);
  std::size_t count = 1;
  for (const Piece& piece : pieces) {
    if (piece.Count() > kMaxNodes || (count *= piece.Count()) > kMaxNodes) throw TooMany();
  }
  std::vector<std::string> names = {""};
  for (const Piece& piece : pieces) names = Extended(names, piece);
  return names;
}

std::vector<std::string> FoldNames(const std::vector<std::string>& names) {
  // "web09" goes with "web10": a family of padded numbers takes those that need no zeros.
  std::set<Family> padded;
  std::vector<Split> splits;
  splits.reserve(names.size());
  for (const std::string& name : names) {
    splits.push_back(SplitAtNumber(name));
    if (const Family family = FamilyOf(splits.back()); family.second > 0) padded.insert(family);
  }
  std::map<Family, std::set<std::uint32_t>> families;
  std::vector<Family> order;
  for (const Split& name : splits) {
    Family family = FamilyOf(name);
    if (const Family wide{family.first, name.digits.size()}; padded.contains(wide)) family = wide;
    const auto [at, is_new] = families.try_emplace(family);
    if (is_new) order.push_back(family);
    std::uint32_t number = 0;
    std::from_chars(name.digits.data(), name.digits.data() + name.digits.size(), number);
    if (!name.digits.empty()) at->second.insert(number);
  }
  std::vector<std::string> words;
  words.reserve(order.size());
  for (const Family& family : order) words.push_back(Folded(family, families.at(family)));
  return words;
}

std::vector<std::string> SplitNames(std::string_view list) {
  std::vector<std::string> words;
  if (list.empty()) return words;
  std::size_t begin = 0;
  int depth = 0;
  for (std::size_t at = 0; at <= list.size(); ++at) {
    const char c = at < list.size() ? list[at] : ',';
    if (c == '[') ++depth;
    if (c == ']') --depth;
    if (c != ',' || (depth > 0 && at < list.size())) continue;
    words.push_back(str::Trim(list.substr(begin, at - begin)));
    begin = at + 1;
  }
  return words;
}

}  // namespace fleet
