#include "brefir/str_utils.h"

#include <cstdlib>
#include <utility>

#include "pnldb/db.h"

namespace str {
namespace {

template <class Container>
std::string JoinAll(const Container& container, std::string_view separator) {
  std::string out;
  for (const std::string& element : container) {
    if (!out.empty() && !element.empty()) out.append(separator);
    out.append(element);
  }
  return out;
}

/// Turns a "?" template into a printf-style one.
std::string PrintfFormat(const std::string& format) {
  return Replace(Replace(format, "%", "%%"), "?", "%s");
}

/// The arguments are C strings: they end at a NUL, as in a command line.
template <class... Args>
std::string Fill(const std::string& format, const Args&... args) {
  return Format(PrintfFormat(format), args.c_str()...);
}

}  // namespace

std::string JoinParams(const StringMap& map, std::string_view pair_separator,
                       std::string_view key_value_separator) {
  std::string out;
  bool first = true;
  for (const auto& [key, value] : map) {
    if (!std::exchange(first, false)) out.append(pair_separator);
    out.append(key).append(key_value_separator).append(value);
  }
  return out;
}

std::string ToStr(bool value) {
  return value ? "true" : "false";
}

std::string ToStr(const pnl_db::StringField& field) {
  return field.AsString();
}

void ITrim(std::string& text) {
  text = Trim(text);
}

bool HasTail(const std::string& text, const std::string& tail) {
  // When the tail is one longer than the text, the difference is npos, which equals "not found".
  return text.rfind(tail) == text.size() - tail.size();
}

std::uint32_t ToUInt32(const std::string& text, std::string& rest, int base) {
  char* end = nullptr;
  const unsigned long number = std::strtoul(text.c_str(), &end, base);
  // With an unknown base, strtoul(3) does not set the end. `rest` may be the same object as `text`.
  rest = text.substr(end == nullptr ? 0 : static_cast<std::size_t>(end - text.c_str()));
  return static_cast<std::uint32_t>(number);
}

std::uint32_t ToUInt32(const std::string& text, int base) {
  std::string rest;
  return ToUInt32(text, rest, base);
}

std::string Unquote(const std::string& text, const std::string& open, std::string close) {
  std::string inside = Trim(text);
  if (close.empty()) close = open;
  if (open.size() + close.size() > inside.size()) return inside;
  if (!inside.starts_with(open) || !HasTail(inside, close)) return inside;
  return inside.substr(open.size(), inside.size() - open.size() - close.size());
}

namespace {

/// Merges the entries into the map and overwrites existing ones. In one step at the end: the text
/// may be a value of the map.
void Merge(StringMap found, StringMap& map) {
  found.merge(map);
  map.swap(found);
}

}  // namespace

void SplitConfig(std::string_view text, StringMap& map) {
  StringMap found;
  while (!text.empty()) {
    std::string line = Trim(NextWord(text, '\n'));
    if (line.empty()) continue;
    const std::string key = GetWord(line);
    found[key] = line;
  }
  Merge(std::move(found), map);
}

void SplitConfig(std::string_view text, StringMap& map, std::string_view separator,
                 std::string_view comment_prefix) {
  StringMap found;
  while (!text.empty()) {
    std::string_view line = TrimView(NextWord(text, '\n'));
    if (line.empty()) continue;
    if (!comment_prefix.empty() && line.starts_with(comment_prefix)) continue;
    const std::string key = Trim(NextWord(line, separator));
    found[key] = Trim(line);
  }
  Merge(std::move(found), map);
}

StringMap SplitParamsRaw(std::string_view text, std::string_view pair_separator,
                         std::string_view key_value_separator) {
  StringMap map;
  while (!text.empty()) {
    std::string_view pair = NextWord(text, pair_separator);
    const std::string key(NextWord(pair, key_value_separator));
    map[key] = pair;
  }
  return map;
}

std::string Join(const std::vector<std::string>& container, std::string_view separator) {
  return JoinAll(container, separator);
}

std::string Join(const StringSet& container, std::string_view separator) {
  return JoinAll(container, separator);
}

std::string Fmt(const std::string& format, const std::string& a) {
  return Fill(format, a);
}

std::string Fmt(const std::string& format, const std::string& a, const std::string& b) {
  return Fill(format, a, b);
}

std::string Fmt(const std::string& format, const std::string& a, const std::string& b,
                const std::string& c) {
  return Fill(format, a, b, c);
}

std::string Fmt(const std::string& format, int a, int b) {
  return Fill(format, ToStr(a), ToStr(b));
}

void formater::AddReplacerPair(StringMap& map, int /*index*/,
                               const NamedVar<std::string>& variable) {
  map.insert_or_assign("{" + Upper(variable.name) + "}", ToStr(variable.value));
}

std::string Fmt2(const std::string& format, const formater::NamedVar<std::string>& first,
                 const formater::NamedVar<std::string>& second,
                 const formater::NamedVar<std::string>& third) {
  StringMap map;
  formater::AddReplacerPair(map, 1, first);
  formater::AddReplacerPair(map, 2, second);
  formater::AddReplacerPair(map, 3, third);
  return Replace(format, map);
}

}  // namespace str
