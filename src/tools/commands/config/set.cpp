#include "pnl/str.h"
#include "tools/commands/config/file.h"
#include "tools/commands/login.h"

namespace tools {
namespace {

namespace lines = utils::lines;

/// The word VALUE, which has to come back from the line as it is.
std::string NewValue(const Context& context, const std::string& key,
                     const utils::LineSyntax& syntax) {
  const std::string& value = context.values.Str("VALUE");
  RequireOneLine(value, "VALUE");
  const std::string back =
      lines::Get(lines::Set("", key, value, "", syntax), key, syntax.quote, syntax);
  if (back == value) return value;
  throw UsageError("VALUE", value,
                   "VALUE '" + value + "' would read back as '" + back +
                       "': blanks at its ends need --quote, and comment characters in it end it "
                       "unless --comment says otherwise");
}

// --- Lines

/// What stands behind the value of a line and outlives it: a comment, with the blanks before it. A
/// comment character that touches the value, or is between quotes, begins none.
std::string CommentOf(std::string_view line, const utils::LineSyntax& syntax) {
  (void)str::NextWord(line, syntax.separator);
  const std::size_t sign = line.find_first_of(syntax.comment);
  if (sign == std::string_view::npos || sign == 0) return "";
  const std::string_view value = str::TrimView(line.substr(0, sign));
  const std::size_t begin = value.empty() ? 0 : line.find(value) + value.size();
  const bool quoted = !value.empty() && (value.front() == '"' || value.front() == '\'') &&
                      (value.size() == 1 || value.back() != value.front());
  return begin == sign || quoted ? "" : std::string(line.substr(begin));
}

bool IsComment(std::string_view line, const utils::LineSyntax& syntax) {
  return !line.empty() && syntax.comment.find(line.front()) != std::string::npos;
}

/// A text of lines that end with CR LF, or with LF.
struct Lines {
  std::string text;  ///< its last line ends as the others do
  std::string end;   ///< "\r" or ""

  explicit Lines(std::string all) : text(std::move(all)) {
    const std::size_t first = text.find('\n');
    if (first != std::string::npos && first > 0 && text[first - 1] == '\r') end = "\r";
    if (!text.empty() && !text.ends_with('\n')) text.append(end).append("\n");
  }

  /// The first line of the key that is no comment, without its end.
  std::string_view LineOf(const std::string& key, const utils::LineSyntax& syntax) const {
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

/// The edit of the library, which writes the line anew; its comment and its end stay here.
std::string SetLine(const std::string& before, const std::string& key, const std::string& value,
                    const std::string& after, const utils::LineSyntax& syntax) {
  const Lines text(before);
  std::string whole = syntax.quote;
  whole.append(value).append(syntax.quote);
  whole.append(CommentOf(text.LineOf(key, syntax), syntax)).append(text.end);
  return lines::Set(text.text, key, whole, after, {syntax.comment, syntax.separator, ""});
}

/// --after means a line that is there.
void RequireAfter(const ConfigFile& file, std::string_view text, const std::string& after) {
  while (!text.empty()) {
    const std::string_view line = str::NextWord(text, '\n');
    if (!IsComment(line, file.Syntax()) && str::TrimView(line).starts_with(after)) return;
  }
  throw pnl_err::Missed("after", after)
      .add_param("message", "'" + file.Path() + "' has no line that begins with '" + after +
                                "', behind which --after wants the key; nothing is changed");
}

// --- The verb

Change Set(Context& context) {
  ConfigFile file(context);
  const utils::LineSyntax& syntax = file.Syntax();
  const std::string key = ConfigKey(context, syntax);
  const std::string value = NewValue(context, key, syntax);
  const std::string& after = context.values.Str("after");
  RequireOneLine(after, "--after");
  const auto edit = [&](const std::string& text) {
    if (!after.empty() && after != key) RequireAfter(file, text, after);
    return SetLine(text, key, value, after, syntax);
  };
  return file.ChangeBy(edit, Record().Add("path", file.Path()).Add("key", key).Add("value", value),
                       context.values.Has("create"));
}

void Describe(opts::Args& args) {
  DescribeConfigKey(args);
  args.Positional("VALUE").Help("its new value");
  args.Option("after").Value("KEY").Help(
      "put the line behind the first one that begins with this, which has to be there, and take it "
      "away elsewhere");
  args.Option("create").Help("make the file when it is missing");
}

}  // namespace

Verb ConfigSetVerb() {
  return {.name = "set",
          .summary = "Sets a key; all other lines stay as they are.",
          .describe = Describe,
          .change = Set,
          .checks = true,
          .examples = {"/etc/default/locale LANG C.UTF-8 --dry-run",
                       "/etc/app.conf port 8080 --after host", "/etc/app.conf port 8080 --create"},
          .fields = {kConfigFile, kConfigKey, {"value", "its value now"}}};
}

}  // namespace tools
