#include "fleet/shell_words.h"

#include <algorithm>
#include <stdexcept>

namespace fleet {
namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}

/// Cuts off what stands between quotes; the first one is gone already.
std::string TakeQuoted(std::string_view& line, char quote) {
  std::string text;
  while (!line.empty() && line.front() != quote) {
    const bool escaped =
        quote == '"' && line.size() > 1 && line[0] == '\\' && (line[1] == '"' || line[1] == '\\');
    if (escaped) line.remove_prefix(1);
    text += line.front();
    line.remove_prefix(1);
  }
  if (line.empty()) {
    throw std::invalid_argument(std::string("has a quote (") + quote +
                                ") that does not end in this line");
  }
  line.remove_prefix(1);
  return text;
}

std::string TakeWord(std::string_view& line) {
  std::string word;
  while (!line.empty() && !IsBlank(line.front())) {
    const char c = line.front();
    line.remove_prefix(1);
    if (c == '\'' || c == '"') {
      word += TakeQuoted(line, c);
    } else if (c == '\\' && !line.empty()) {
      word += line.front();
      line.remove_prefix(1);
    } else {
      word += c;
    }
  }
  return word;
}

}  // namespace

std::vector<std::string> ShellWords(std::string_view line) {
  std::vector<std::string> words;
  for (;;) {
    while (!line.empty() && IsBlank(line.front())) line.remove_prefix(1);
    if (line.empty() || line.front() == '#') return words;
    words.push_back(TakeWord(line));
  }
}

std::string QuotedWord(std::string_view word) {
  if (!word.empty() && word.find_first_of(" \t\r'\"\\#") == std::string_view::npos)
    return std::string(word);
  if (word.find('\'') == std::string_view::npos) return "'" + std::string(word) + "'";
  std::string quoted = "\"";
  for (const char c : word) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

}  // namespace fleet
