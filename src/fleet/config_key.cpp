#include "fleet/config_key.h"

#include <string_view>

#include "pnl/err.h"
#include "pnl/str.h"

namespace fleet {
namespace {

namespace lines = utils::lines;
using utils::LineSyntax;

/// The comment after the value of a line, with the blanks before it. A comment character directly
/// after the value, or between quotes, does not begin a comment.
std::string CommentOf(std::string_view line, const LineSyntax& syntax) {
  (void)str::NextWord(line, syntax.separator);
  const std::size_t sign = line.find_first_of(syntax.comment);
  if (sign == std::string_view::npos || sign == 0) return "";
  const std::string_view value = str::TrimView(line.substr(0, sign));
  const std::size_t begin = value.empty() ? 0 : line.find(value) + value.size();
  const bool quoted = !value.empty() && (value.front() == '"' || value.front() == '\'') &&
                      (value.size() == 1 || value.back() != value.front());
  return begin == sign || quoted ? "" : std::string(line.substr(begin));
}

bool IsComment(std::string_view line, const LineSyntax& syntax) {
  return !line.empty() && syntax.comment.find(line.front()) != std::string::npos;
}

/// A text of lines that end with CR LF, or with LF.
struct Lines {
  std::string text;  ///< its last line ends as the others do
  std::string end;   ///< "\r" or ""

  explicit Lines(std::string all) : text(std::move(all)) {
    const std::size_t first = text.find('\n');
    if (first != std::string::npos && first > 0 && text[first - 1] == '\r') end.assign(1, '\r');
    if (!text.empty() && !text.ends_with('\n')) text.append(end).append("\n");
  }

  /// The first line of the key that is not a comment, without its line end.
  std::string_view LineOf(const std::string& key, const LineSyntax& syntax) const {
    for (std::string_view rest = text; !rest.empty();) {
      std::string_view line = str::NextWord(rest, '\n');
      std::string_view words = line;
      if (IsComment(line, syntax) || str::TrimView(str::NextWord(words, syntax.separator)) != key)
        continue;
      if (line.ends_with('\r')) line.remove_suffix(1);
      return line;
    }
    return {};
  }
};

void RequireLine(std::string_view text, const std::string& after, const LineSyntax& syntax) {
  while (!text.empty()) {
    const std::string_view line = str::NextWord(text, '\n');
    if (!IsComment(line, syntax) && str::TrimView(line).starts_with(after)) return;
  }
  throw pnl_err::Missed("after", after);
}

}  // namespace

/// The library rewrites the line; this keeps its comment and its line end.
std::string SetConfigKey(const std::string& text, const std::string& key, const std::string& value,
                         const LineSyntax& syntax, const std::string& after) {
  if (!after.empty() && after != key) RequireLine(text, after, syntax);
  const Lines all(text);
  std::string whole = syntax.quote;
  whole.append(value).append(syntax.quote);
  whole.append(CommentOf(all.LineOf(key, syntax), syntax)).append(all.end);
  return lines::Set(all.text, key, whole, after, {syntax.comment, syntax.separator, ""});
}

std::optional<std::string> RemoveConfigKey(const std::string& text, const std::string& key,
                                           const LineSyntax& syntax) {
  return lines::Del(Lines(text).text, key, syntax);
}

}  // namespace fleet
