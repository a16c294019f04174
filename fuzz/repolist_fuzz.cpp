// Changes of the repository list, against a model that keeps it as a list of lines.

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "brefir/ostemplates.h"
#include "check.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/str.h"

namespace {

constexpr const char* kFile = "etc/ostemplates.conf";
constexpr const char* kKind = "ostemplates";
constexpr std::string_view kBlanks = "\t\r ";

struct Word {
  std::size_t begin;
  std::size_t end;
};

/// A line of the file from `begin` up to `end`, which is behind its line feed.
struct Line {
  std::size_t begin = 0;
  std::size_t end = 0;
  std::vector<Word> words;
};

std::vector<Line> Lines(std::string_view text) {
  std::vector<Line> lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
    std::string_view line = text.substr(begin, end - begin);
    if (line.ends_with('\n')) line.remove_suffix(1);
    line = line.substr(0, line.find('#'));
    lines.push_back({begin, end, {}});
    for (std::size_t at = 0;
         (at = line.find_first_not_of(kBlanks, at)) != std::string_view::npos;) {
      const std::size_t stop = std::min(line.find_first_of(kBlanks, at), line.size());
      lines.back().words.push_back({begin + at, begin + stop});
      at = stop;
    }
    begin = end;
  }
  return lines;
}

/// The n-th word of a line; "" when it has fewer.
std::string WordOf(const std::string& text, const Line& line, std::size_t n) {
  if (n >= line.words.size()) return "";
  return text.substr(line.words[n].begin, line.words[n].end - line.words[n].begin);
}

bool IsWord(const std::string& text) {
  return !text.empty() && text.find_first_of(std::string("\t\r \n#\0", 6)) == std::string::npos;
}

/// Kind and name are one key without anything between them.
bool HasKey(const std::string& text, const Line& line, const std::string& name) {
  return WordOf(text, line, 0) == "Repo" &&
         WordOf(text, line, 1) + WordOf(text, line, 2) == kKind + name;
}

StringMap List(const std::string& text) {
  StringMap list{{ostemplate::kBuiltinRepo, "builtin"}};
  for (const Line& line : Lines(text)) {
    const bool listed = WordOf(text, line, 0) == "Repo" && WordOf(text, line, 1) == kKind;
    if (listed && line.words.size() > 2) list[WordOf(text, line, 2)] = WordOf(text, line, 3);
  }
  return list;
}

std::string WithAdded(std::string text, const std::string& name, const std::string& location) {
  const std::size_t last = text.rfind('\n');
  const bool crlf = last != std::string::npos && last > 0 && text[last - 1] == '\r';
  const std::string end = crlf ? "\r\n" : "\n";
  if (!text.empty() && text.back() != '\n') text += end;
  return text + "Repo " + kKind + " " + name + " " + location + end;
}

/// The last line of that key gets the location; none when it cannot be written down.
std::optional<std::string> Set(std::string text, const std::string& name,
                               const std::string& location) {
  if (!IsWord(location)) return std::nullopt;
  const std::vector<Line> lines = Lines(text);
  const auto line = std::find_if(lines.rbegin(), lines.rend(), [&](const Line& candidate) {
    return HasKey(text, candidate, name);
  });
  if (line == lines.rend()) {
    return IsWord(name) ? std::optional(WithAdded(text, name, location)) : std::nullopt;
  }
  if (line->words.size() < 3) return std::nullopt;
  if (line->words.size() == 3) return text.insert(line->words[2].end, " " + location);
  const Word& old = line->words[3];
  return text.replace(old.begin, old.end - old.begin, location);
}

std::string Without(const std::string& text, const std::string& name) {
  std::string kept;
  for (const Line& line : Lines(text)) {
    if (!HasKey(text, line, name)) kept.append(text, line.begin, line.end - line.begin);
  }
  return kept;
}

/// The repositories that are listed now, after a look at them and at their file.
ostemplate::OstRepo Checked(const std::string& text) {
  fuzz::Check(pnl_file::Read(kFile) == text, "the file");
  ostemplate::OstRepo repositories("builtin");
  StringMap list;
  for (const auto& [name, info] : repositories.repos) list[name] = info.location;
  fuzz::Check(list == List(text), "the list");
  return repositories;
}

void CheckSet(const std::string& text, const std::string& name, const std::string& location) {
  ostemplate::OstRepo repositories = Checked(text);
  const std::optional<std::string> set = Set(text, name, location);
  try {
    repositories.Set(name, location);
    fuzz::Check(set.has_value(), "what is no word is refused");
  } catch (const pnl_err::Error& error) {
    fuzz::Check(!set && error.object() == "bad_word", "a word is taken");
  }
  Checked(set.value_or(text));
}

void CheckDelete(const std::string& text, const std::string& name) {
  const std::string deleted = Without(text, name);
  fuzz::Check(Checked(text).Delete(name) == (deleted != text), "Delete");
  fuzz::Check(pnl_file::Read(kFile) == deleted, "the file without the name");
}

}  // namespace

/// A name, then a location to set or none to delete, then the file.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(fuzz::Text(data, size));
  const std::string name = str::GetWord(text, '\n');
  const std::string location = str::GetWord(text, '\n');
  fuzz::Put(kFile, text);
  if (location.empty()) {
    CheckDelete(text, name);
  } else {
    CheckSet(text, name, location);
  }
  return 0;
}
