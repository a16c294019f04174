// Edits of a configuration file, against a model that keeps it as a list of lines.

#include <string>
#include <vector>

#include "brefir/simpleconfig.h"
#include "check.h"
#include "pnl/str.h"

namespace {

using Lines = std::vector<std::string>;

Lines Split(std::string text) {
  Lines lines;
  while (!text.empty()) lines.push_back(str::GetWord(text, '\n'));
  return lines;
}

std::string Join(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

std::string KeyOf(std::string line) {
  return str::Trim(str::GetWord(line, "="));
}

bool Editable(const std::string& line) {
  return !line.empty() && line.front() != '#';
}

/// Without `after`: the first line of the key changes, or a new one comes at the end.
std::string SetModel(const std::string& text, const std::string& key, const std::string& value) {
  Lines lines = Split(text);
  for (std::string& line : lines) {
    if (!Editable(line) || KeyOf(line) != key) continue;
    line = key + "=" + value;
    return Join(lines);
  }
  lines.push_back(key + "=" + value);
  return Join(lines);
}

std::string DelModel(const std::string& text, const std::string& key) {
  Lines kept;
  for (const std::string& line : Split(text)) {
    if (KeyOf(line) != key) kept.push_back(line);
  }
  return Join(kept);
}

/// With `after`: the new line stands once, behind the first that begins with it.
void CheckAfter(const std::string& text, const std::string& key, const std::string& after) {
  const Lines lines = Split(utils::lines::Set(text, key, "new", after, {}));
  std::size_t at = lines.size();
  for (std::size_t i = 0; i < lines.size() && at == lines.size(); ++i) {
    if (Editable(lines[i]) && str::Trim(lines[i]).starts_with(after)) at = i;
  }
  const std::size_t wanted = at == lines.size() ? lines.size() - 1 : at + 1;
  fuzz::Check(wanted < lines.size() && lines[wanted] == key + "=new", "the line is in its place");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(fuzz::Text(data, size));
  const std::string key = str::Trim(str::GetWord(text, '\n'));
  const std::string after = str::Trim(str::GetWord(text, '\n'));
  const utils::LineSyntax syntax;
  const std::string set = utils::lines::Set(text, key, "v", "", syntax);
  if (key.find('=') == std::string::npos) {
    fuzz::Check(set == SetModel(text, key, "v"), "Set");
    if (!key.starts_with('#') && !key.empty())
      fuzz::Check(utils::lines::Get(set, key, "", syntax) == "v", "what was set is read");
    if (!after.empty() && after != key && !after.starts_with('#') &&
        !(key + "=new").starts_with(after))
      CheckAfter(text, key, after);
  }
  const auto deleted = utils::lines::Del(text, key, syntax);
  fuzz::Check(deleted.has_value() == utils::lines::Exists(text, key, syntax), "Del finds the key");
  if (deleted) fuzz::Check(*deleted == DelModel(text, key), "Del");
  for (const auto& entry : utils::lines::List(text, "\"", syntax))
    fuzz::Check(!entry.key.empty() && entry.key == str::Trim(entry.key), "List");
  return 0;
}
