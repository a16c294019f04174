#include "fleet/change_file.h"

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <utility>

#include "brefir/str_utils.h"
#include "fleet/shell_words.h"
#include "pnl/file.h"

namespace fleet {
namespace {

constexpr std::string_view kOpen = "{node.";
constexpr std::size_t kMaxLines = 1000;  // of one command
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

bool IsNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-';
}

/// The word with `value_of(NAME)` for each "{node.NAME}".
std::string Replaced(std::string_view word,
                     const std::function<std::string(const std::string& name)>& value_of) {
  std::string text;
  for (;;) {
    const std::size_t begin = word.find(kOpen);
    text += word.substr(0, begin);
    if (begin == std::string_view::npos) return text;
    word.remove_prefix(begin + kOpen.size());
    const auto end = static_cast<std::size_t>(
        std::find_if_not(word.begin(), word.end(), IsNameCharacter) - word.begin());
    if (end == 0 || end == word.size() || word[end] != '}')
      throw std::invalid_argument("has '{node.' without a name and '}' after it");
    text += value_of(std::string(word.substr(0, end)));
    word.remove_prefix(end + 1);
  }
}

bool HasValues(const std::string& word) {
  bool has = false;
  Replaced(word, [&](const std::string&) { return has = true, std::string(); });
  return has;
}

/// Whether the line goes on in the next one. A word behind it counts only if no comment has begun.
bool GoesOn(std::string_view line) {
  const std::size_t last = line.find_last_not_of('\\');
  const std::size_t slashes = line.size() - (last == std::string_view::npos ? 0 : last + 1);
  if (slashes % 2 == 0) return false;
  line.remove_suffix(1);
  try {
    return ShellWords(std::string(line) + " x").size() > ShellWords(line).size();
  } catch (const std::invalid_argument&) {
    return true;  // a quote is open
  }
}

/// One text on its way to lines.
class Reader {
 public:
  Reader(std::string_view text, const std::string& path) : rest_(text), path_(path) {}

  ChangeFile Read() {
    while (!rest_.empty()) ReadLine();
    return std::move(file_);
  }

 private:
  std::string_view NextLine() {
    ++number_;
    const std::size_t end = rest_.find('\n');
    std::string_view line = rest_.substr(0, end);
    rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    return line;
  }

  void ReadLine() {
    std::string text(NextLine());
    const std::size_t first = number_;
    while (GoesOn(text)) {
      if (rest_.empty()) return Note(first, text, "ends with a backslash, and no line follows");
      if (number_ - first == kMaxLines) return Note(first, text, "goes on for too many lines");
      text.pop_back();
      text += NextLine();
    }
    try {
      ChangeLine line{.number = first, .words = ShellWords(text)};
      if (!line.words.empty() && line.words.front() == "brefirctl")
        line.words.erase(line.words.begin());
      if (line.words.empty()) return;
      for (const std::string& word : line.words) line.has_values |= HasValues(word);
      file_.lines.push_back(std::move(line));
    } catch (const std::invalid_argument& error) {
      Note(first, text, error.what());
    }
  }

  void Note(std::size_t line, const std::string& text, const std::string& what) {
    file_.mistakes.push_back(ChangeFileError(
        path_, line, str::Trim(text), "'" + str::Shorten(str::Trim(text), 100) + "' " + what));
  }

  std::string_view rest_;
  const std::string& path_;
  std::size_t number_ = 0;
  ChangeFile file_;
};

}  // namespace

pnl_err::Error ChangeFileError(const std::string& path, std::size_t line, const std::string& word,
                               const std::string& what) {
  const std::string at = std::to_string(line);
  return pnl_err::Error(kChangeFileError, path, word)
      .add_param("line", at)
      .add_param("message", path + ":" + at + ": " + what);
}

static void RequireSize(std::uint64_t size, const std::string& path) {
  if (size <= kMaxChangeFile) return;
  throw pnl_err::Error(kChangeFileError, path)
      .add_param("message", path + ": has more than 1 MiB; this is no file of commands");
}

ChangeFile LoadChangeFile(const std::string& path, const std::string& name) {
  RequireSize(pnl_file::OpenRegular(path).info.Size(), name);
  return ReadChangeFile(pnl_file::ReadE(path), name);
}

ChangeFile ReadChangeFile(std::string_view text, const std::string& path) {
  RequireSize(text.size(), path);
  if (const std::size_t zero = text.find('\0'); zero != std::string_view::npos) {
    const auto line =
        1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(zero), '\n');
    throw ChangeFileError(path, static_cast<std::size_t>(line), "",
                          "has a zero byte; this is no text file");
  }
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  return Reader(text, path).Read();
}

StringMap NodeValues(const Node& node, const pnl_rpc::SshOptions& login) {
  StringMap values = node.settings ? *node.settings : StringMap();
  values["name"] = node.line != 0 ? node.name : node.host;
  values["host"] = node.host;
  values["user"] = login.user;
  values["port"] = std::to_string(login.port);
  if (node.line != 0) values["groups"] = node.groups ? str::Join(*node.groups, ",") : "";
  return values;
}

std::string FilledIn(std::string_view word, const StringMap& values) {
  return Replaced(word, [&](const std::string& name) {
    const auto found = values.find(name);
    if (found != values.end()) return found->second;
    throw pnl_err::Missed("value", name);
  });
}

}  // namespace fleet
