// The texts that people read: usage, suggestions.

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "brefir/cmdarg.h"
#include "pnl/err.h"
#include "pnl/str.h"
#include "pnl/utf8.h"

namespace opts {

namespace {

using Levels = std::vector<const Args*>;

constexpr const char* kHelp = "help";
constexpr std::size_t kDefaultWidth = 80;
constexpr std::size_t kMinWidth = 40;  // narrower columns would have one word a line
constexpr std::size_t kMaxLabel = 30;  // a longer label has its help on the next line

/// Adds `text` wrapped at blanks; `out` ends in column `column`, further lines begin at `indent`.
void AppendWrapped(std::string& out, std::string_view text, std::size_t column, std::size_t indent,
                   std::size_t width) {
  bool first = true;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(' '), text.size());
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (!first && column + 1 + utf8::Count(word) > width) {
      out += "\n" + std::string(indent, ' ');
      column = indent;
    } else if (!first) {
      out += ' ';
      ++column;
    }
    out += word;
    column += utf8::Count(word);
    first = false;
  }
  out += '\n';
}

struct Row {
  std::string label;
  std::string text;
};

std::string Section(const std::string& title, const std::vector<Row>& rows, std::size_t width) {
  if (rows.empty()) return "";
  std::size_t label_width = 0;
  for (const Row& row : rows) {
    if (row.label.size() <= kMaxLabel) label_width = std::max(label_width, row.label.size());
  }
  const std::size_t indent = 2 + label_width + 2;
  std::string out = "\n" + title + ":\n";
  for (const Row& row : rows) {
    out += "  " + row.label;
    const std::size_t column = 2 + row.label.size();
    out +=
        column + 2 > indent ? "\n" + std::string(indent, ' ') : std::string(indent - column, ' ');
    AppendWrapped(out, row.text, indent, indent, width);
  }
  return out;
}

/// Lines that begin with a blank are examples and stay as they are.
std::string Paragraphs(std::string_view text, std::size_t width) {
  std::string out;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.starts_with(" ")) {
      out += std::string(line) + '\n';
    } else {
      AppendWrapped(out, line, 0, 0, width);
    }
  }
  return out;
}

std::vector<const ArgInfo*> Infos(const std::list<Arg>& args) {
  std::vector<const ArgInfo*> infos;
  infos.reserve(args.size());
  for (const Arg& arg : args) infos.push_back(&arg.Info());
  return infos;
}

std::vector<Row> Rows(const std::vector<const ArgInfo*>& infos) {
  std::vector<Row> rows;
  rows.reserve(infos.size());
  for (const ArgInfo* info : infos) {
    if (!info->hidden) rows.push_back({Label(*info), Describe(*info)});
  }
  return rows;
}

bool HasOption(const Args& level, const std::string& name) {
  return std::any_of(level.Options().begin(), level.Options().end(),
                     [&](const Arg& arg) { return arg.Info().name == name; });
}

/// Optimal string alignment distance: insertions, deletions, changes and swaps of neighbours.
std::size_t Distance(std::string_view a, std::string_view b) {
  std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + change});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
    }
  }
  return d[a.size()][b.size()];
}

}  // namespace

std::string Args::Usage(const std::vector<std::string>& command, std::size_t width) const {
  width = std::max(width == 0 ? TerminalWidth() : width, kMinWidth);
  Levels levels = {this};
  for (const std::string& name : command) {
    const Args* inner = levels.back()->FindCommand(name);
    if (inner == nullptr)
      throw pnl_err::Error("opts", name).add_param("message", "no such command");
    levels.push_back(inner);
  }
  const Args& level = *levels.back();

  std::string out = "Usage: ";
  AppendWrapped(out, Synopsis(levels), out.size(), out.size(), width);
  out += "\n" + Paragraphs(level.Summary(), width);
  if (!level.Details().empty()) out += "\n" + Paragraphs(level.Details(), width);
  std::vector<Row> commands;
  for (const Args& inner : level.Commands()) commands.push_back({inner.Name(), inner.Summary()});
  out += Section(level.CommandName() + " is one of", commands, width);
  out += Section("Arguments", Rows(Infos(level.Positionals())), width);
  out += Section("Options", Rows(Infos(level.Options())), width);
  out += Section("Common options", Rows(OuterOptions(levels)), width);
  if (level.Examples().empty()) return out;
  out += level.Examples().size() == 1 ? "\nExample:\n" : "\nExamples:\n";
  for (const std::string& call : level.Examples()) out += "  " + call + "\n";
  return out;
}

std::string Synopsis(const std::vector<const Args*>& levels) {
  std::string text;
  std::string required;
  for (const Args* level : levels) {
    text = str::Append(text, level->Name(), " ");
    for (const ArgInfo* info : Infos(level->Options())) {
      if (info->required) required += str::Format(" --%s %s", info->name, info->value_name);
    }
  }
  text += " [OPTION...]" + required;
  const Args* level = levels.back();
  for (const ArgInfo* info : Infos(level->Positionals())) text += " " + Label(*info);
  if (level->Commands().empty()) return text;
  for (; !level->Commands().empty(); level = &level->Commands().front())
    text += " " + level->CommandName();
  return text + " ...";
}

std::vector<const ArgInfo*> OuterOptions(const std::vector<const Args*>& levels) {
  std::vector<const ArgInfo*> outer;
  for (std::size_t i = 0; i + 1 < levels.size(); ++i) {
    for (const ArgInfo* info : Infos(levels[i]->Options())) {
      const bool taken_over =
          std::any_of(levels.begin() + static_cast<std::ptrdiff_t>(i) + 1, levels.end(),
                      [&](const Args* inner) { return HasOption(*inner, info->name); });
      if (!taken_over && !info->hidden && (!info->last || info->name == kHelp))
        outer.push_back(info);
    }
  }
  return outer;
}

std::string Label(const ArgInfo& info) {
  if (info.positional) {
    const std::string name = info.name + (info.repeated ? "..." : "");
    return info.required ? name : "[" + name + "]";
  }
  const std::string letter = info.letter == '\0' ? "    " : std::string("-") + info.letter + ", ";
  return letter + "--" + info.name + (info.value_name.empty() ? "" : " " + info.value_name);
}

std::string Describe(const ArgInfo& info) {
  std::string notes;
  const auto note = [&](const std::string& text) { notes = str::Append(notes, text, "; "); };
  if (info.positional && info.kind == Kind::kChoice) note("one of " + info.value_name);
  if (info.kind == Kind::kNumber)
    note(std::to_string(info.min) + " to " + std::to_string(info.max));
  if (!info.positional && info.required) note("required");
  if (!info.positional && info.repeated) note("may be repeated");
  if (info.default_value && !info.default_value->empty()) note("default: " + *info.default_value);
  for (const std::string& other : info.needs) note("needs --" + other);
  for (const std::string& other : info.excludes) note("not with --" + other);
  return notes.empty() ? info.help : info.help + " (" + notes + ")";
}

std::string Nearest(std::string_view word, const std::vector<std::string>& known) {
  // A word that is much longer than any name is not a misspelling; skipping it limits the work.
  if (word.empty() || word.size() > 64) return "";
  std::string nearest;
  std::size_t best = std::max<std::size_t>(1, word.size() / 3) + 1;
  for (const std::string& name : known) {
    const std::size_t distance = name.starts_with(word) ? 1 : Distance(word, name);
    if (distance < best) {
      best = distance;
      nearest = name;
    }
  }
  return nearest;
}

std::size_t TerminalWidth() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  const char* columns = std::getenv("COLUMNS");
  std::size_t width = 0;
  if (columns != nullptr) std::from_chars(columns, columns + std::strlen(columns), width);
  return width > 0 ? width : kDefaultWidth;
}

}  // namespace opts
