// config: files of keys and values, here or on a node.

#include <functional>
#include <optional>

#include "brefir/simpleconfig.h"
#include "fleet/diff.h"
#include "pnl/file.h"
#include "tools/commands/families.h"
#include "tools/commands/login.h"
#include "tools/commands/host_file.h"

namespace tools {
namespace {

namespace lines = utils::lines;

// --- The file

utils::LineSyntax GivenSyntax(const Context& context) {
  utils::LineSyntax syntax{context.values.Str("comment"), context.values.Str("separator"),
                           context.values.Str("quote")};
  if (syntax.separator.empty())
    throw UsageError("--separator", "", "--separator must not be empty: it ends the key");
  for (const char* option : {"comment", "separator", "quote"}) {
    const std::string& value = context.values.Str(option);
    if (value.find('\n') == std::string::npos) continue;
    throw UsageError(std::string("--") + option, value,
                     std::string("--") + option + " must not hold a line end");
  }
  return syntax;
}

/// The word FILE, which names no directory.
const std::string& FileWord(const Context& context) {
  const std::string& word = context.values.Str("FILE");
  if (!word.ends_with('/')) return word;
  throw UsageError("FILE", word, "FILE '" + word + "' names a directory; a file is wanted");
}

/// The file that the command line names, with what it says about its lines.
class File {
 public:
  using Edit = std::function<std::string(const std::string& text)>;

  explicit File(Context& context)
      : context_(context),
        syntax_(GivenSyntax(context)),
        path_(context.Path(FileWord(context))),
        host_(OpenHost(context)) {
    if (!host_.IsLocal()) path_ = NodePath(context, "FILE");
  }

  const std::string& Path() const { return path_; }
  const utils::LineSyntax& Syntax() const { return syntax_; }

  /// Its text. A missing file is an error.
  std::string Text() { return host_.IsLocal() ? pnl_file::ReadE(path_) : HostText(host_, path_); }

  /// Makes the change, or shows it. `create`: also where there is no file.
  void Change(const Edit& edit, const Record& result, bool create = false) {
    const bool dry_run = context_.values.Has("dry-run");
    pnl_file::Lock lock;  // keeps two of these programs apart
    if (!dry_run && host_.IsLocal())
      lock.DoLockWithTimeout(path_, true, kLockTimeout, kLockInterval);
    pnl_host::Content before;
    if (create) {
      OnHostFile(host_, path_, "remote_read", "read", [&] { before = host_.Read(path_); });
    } else {
      before = Text();
    }
    const std::string after = edit(before.value_or(""));
    if (dry_run) {
      context_.out.Text("diff", fleet::UnifiedDiff(before.value_or(""), after, path_));
      return;
    }
    if (before != after) ReplaceText(host_, path_, after, before);
    context_.out.One(result);
  }

 private:
  // Seconds.
  static constexpr int kLockTimeout = 3;
  static constexpr int kLockInterval = 1;

  Context& context_;
  utils::LineSyntax syntax_;
  std::string path_;
  pnl_host::Host host_;
};

// --- Words

void RequireOneLine(const std::string& word, const char* what) {
  if (word.find('\n') == std::string::npos) return;
  throw UsageError(what, word, std::string(what) + " must not hold a line end");
}

/// The word KEY, which has to be one that a line can have.
std::string Key(const Context& context, const utils::LineSyntax& syntax) {
  const std::string& key = context.values.Str("KEY");
  const auto refuse = [&](const std::string& why) {
    return UsageError("KEY", key, "KEY '" + key + "' " + why);
  };
  RequireOneLine(key, "KEY");
  if (key.empty()) throw refuse("must not be empty");
  if (str::TrimView(key).size() != key.size()) throw refuse("must not begin or end with a blank");
  if (key.find(syntax.separator) != std::string::npos)
    throw refuse("must not hold the separator '" + syntax.separator + "'");
  if (syntax.comment.find(key.front()) != std::string::npos)
    throw refuse("must not begin with a comment character");
  return key;
}

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

pnl_err::Missed NoKey(const File& file, const std::string& key) {
  pnl_err::Missed error("key", key);
  error.add_param("message", "'" + file.Path() + "' has no key '" + key + "'");
  return error;
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
void RequireAfter(const File& file, std::string_view text, const std::string& after) {
  while (!text.empty()) {
    const std::string_view line = str::NextWord(text, '\n');
    if (!IsComment(line, file.Syntax()) && str::TrimView(line).starts_with(after)) return;
  }
  throw pnl_err::Missed("after", after)
      .add_param("message", "'" + file.Path() + "' has no line that begins with '" + after +
                                "', behind which --after wants the key; nothing is changed");
}

// --- Verbs

int Get(Context& context) {
  File file(context);
  const std::string key = Key(context, file.Syntax());
  const std::string text = file.Text();
  if (!lines::Exists(text, key, file.Syntax())) throw NoKey(file, key);
  const std::string value = lines::Get(text, key, file.Syntax().quote, file.Syntax());
  if (context.out.GetFormat() == Format::kJson) {
    context.out.One(Record().Add("key", key).Add("value", value));
  } else {
    context.out.Text("value", value + "\n");
  }
  return kDone;
}

int List(Context& context) {
  File file(context);
  std::vector<Record> records;
  for (const auto& [line, key, value] :
       lines::List(file.Text(), file.Syntax().quote, file.Syntax()))
    records.push_back(Record().Add("line", line).Add("key", key).Add("value", value));
  context.out.List(records, {"key", "value"});
  return kDone;
}

int Set(Context& context) {
  File file(context);
  const utils::LineSyntax& syntax = file.Syntax();
  const std::string key = Key(context, syntax);
  const std::string value = NewValue(context, key, syntax);
  const std::string& after = context.values.Str("after");
  RequireOneLine(after, "--after");
  const auto edit = [&](const std::string& text) {
    if (!after.empty() && after != key) RequireAfter(file, text, after);
    return SetLine(text, key, value, after, syntax);
  };
  file.Change(edit, Record().Add("path", file.Path()).Add("key", key).Add("value", value),
              context.values.Has("create"));
  return kDone;
}

int Del(Context& context) {
  File file(context);
  const std::string key = Key(context, file.Syntax());
  const auto edit = [&](const std::string& text) {
    const std::optional<std::string> after = lines::Del(Lines(text).text, key, file.Syntax());
    if (!after) throw NoKey(file, key);
    return *after;
  };
  file.Change(edit, Record().Add("path", file.Path()).Add("key", key).Add("deleted", true));
  return kDone;
}

// --- The command line

const Field kFileField = {"path", "the file"};
const Field kKeyField = {"key", "the key"};

void DescribeFile(opts::Args& args) {
  args.Positional("FILE").Help("a file of keys and values");
}

void DescribeKey(opts::Args& args) {
  DescribeFile(args);
  args.Positional("KEY").Help("the key");
}

void DescribeDel(opts::Args& args) {
  DescribeKey(args);
  args.Option("dry-run").Help("show the change as a diff");
}

void DescribeSet(opts::Args& args) {
  DescribeKey(args);
  args.Positional("VALUE").Help("its new value");
  args.Option("after").Value("KEY").Help(
      "put the line behind the first one that begins with this, which has to be there, and take it "
      "away elsewhere");
  args.Option("create").Help("make the file when it is missing");
  args.Option("dry-run").Help("show the change as a diff");
}

void DescribeFamily(opts::Args& args) {
  args.Details(
      "A line is a key, the separator and a value; --separator ' ' reads files that have a blank "
      "between them. Comments, other lines and their order stay as they are, and the file is "
      "replaced as a whole.");
  args.Option("comment").Value("CHARS").Default("#").Help(
      "lines that begin with one of these are comments");
  args.Option("separator").Value("TEXT").Default("=").Help("what stands between key and value");
  args.Option("quote").Value("TEXT").Default("").Help("what stands around values");
  AddNodeOptions(args);
}

}  // namespace

Family ConfigFamily() {
  return {"config",
          "Files of keys and values, here or on a node.",
          DescribeFamily,
          {{"get",
            "Prints the value of a key.",
            DescribeKey,
            Get,
            {"/etc/default/locale LANG", "--separator ' ' /etc/ssh/sshd_config Port"},
            {kKeyField, {"value", "its value"}}},
           {"set",
            "Sets a key; all other lines stay as they are.",
            DescribeSet,
            Set,
            {"/etc/default/locale LANG C.UTF-8 --dry-run", "/etc/app.conf port 8080 --after host",
             "/etc/app.conf port 8080 --create"},
            {kFileField, kKeyField, {"value", "its value now"}, kDiffField}},
           {"del",
            "Deletes the lines of a key.",
            DescribeDel,
            Del,
            {"/etc/app.conf port --dry-run"},
            {kFileField, kKeyField, {"deleted", "true"}, kDiffField}},
           {"list",
            "Lists keys and values, in the file's order.",
            DescribeFile,
            List,
            {"/etc/default/locale", "/etc/app.conf --quote '\"' --node 192.0.2.7"},
            {{"line", "where it is; the first is 1"}, kKeyField, {"value", "its value"}}}}};
}

}  // namespace tools
