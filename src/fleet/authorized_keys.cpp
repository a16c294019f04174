#include "fleet/authorized_keys.h"

#include <algorithm>
#include <set>

#include "pnl/str.h"

namespace fleet {
namespace {

/// Cuts off the next word; blanks between double quotes are part of it, as in command="a b".
std::string_view NextField(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
  bool quoted = false;
  std::size_t end = 0;
  for (; end < line.size(); ++end) {
    const char c = line[end];
    if (c == '\\' && end + 1 < line.size() && line[end + 1] == '"') {
      ++end;
    } else if (c == '"') {
      quoted = !quoted;
    } else if (!quoted && (c == ' ' || c == '\t')) {
      break;
    }
  }
  const std::string_view field = line.substr(0, end);
  line.remove_prefix(end);
  return field;
}

bool IsType(std::string_view field) {
  return field.starts_with("ssh-") || field.starts_with("ecdsa-") || field.starts_with("sk-");
}

}  // namespace

KeyLine SplitKeyLine(std::string_view line) {
  std::string_view rest = str::TrimView(line);
  if (rest.starts_with('#')) return {};
  std::string_view options;
  std::string_view type = NextField(rest);
  if (!IsType(type)) {
    options = type;
    type = NextField(rest);
  }
  const std::string_view blob = NextField(rest);
  if (!IsType(type) || blob.empty()) return {};
  return {std::string(options), std::string(type) + " " + std::string(blob), str::Trim(rest)};
}

std::string KeyOf(std::string_view line) {
  return SplitKeyLine(line).key;
}

std::vector<std::string> LinesWith(std::string_view text, std::string_view key) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const std::string_view line = str::NextWord(text, '\n');
    if (KeyOf(line) == key) lines.emplace_back(line);
  }
  return lines;
}

std::string WithoutKey(std::string_view text, std::string_view key) {
  std::string rest;
  while (!text.empty()) {
    const std::string_view all = text;
    const std::string_view line = str::NextWord(text, '\n');
    if (KeyOf(line) != key) rest += all.substr(0, all.size() - text.size());
  }
  return rest;
}

bool HasAllLines(std::string_view text, std::string_view old_text) {
  std::set<std::string_view> lines;
  while (!text.empty()) lines.insert(str::NextWord(text, '\n'));
  while (!old_text.empty()) {
    if (!lines.contains(str::NextWord(old_text, '\n'))) return false;
  }
  return true;
}

}  // namespace fleet
