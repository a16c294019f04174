#include <algorithm>
#include <optional>

#include "brefir/cmdarg.h"
#include "fleet/inventory.h"
#include "fleet/inventory_line.h"
#include "fleet/node_range.h"

namespace fleet {
namespace {

pnl_err::Error Refused(const std::string& path, const std::string& word, const std::string& what) {
  return pnl_err::Error(kInventoryError, path, word)
      .add_param("message", path + ": '" + word + "' " + what);
}

/// A line of the text, with what it is.
struct Line {
  std::string_view text;  // with its end
  enum { kNodes, kGroup, kOther } kind = kOther;
  std::string word = {};  // its first
};

/// Of a text that was parsed: each line is a good one.
std::vector<Line> Lines(std::string_view text) {
  std::vector<Line> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size() - 1) + 1;
    Line line{.text = text.substr(0, end)};
    text.remove_prefix(end);
    std::string_view bare = line.text;
    if (bare.ends_with('\n')) bare.remove_suffix(1);
    if (const std::vector<std::string> words = InventoryWords(bare); !words.empty()) {
      line.word = words.front();
      line.kind = OpensGroup(line.word) ? Line::kGroup : Line::kNodes;
    }
    lines.push_back(std::move(line));
  }
  return lines;
}

/// Before which line a new one of the group goes: behind its last node, so that comments above the
/// next group stay there.
std::size_t PlaceIn(const std::vector<Line>& lines, const std::string& group) {
  std::string section;
  std::optional<std::size_t> place;
  std::size_t first_group = lines.size();
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].kind == Line::kGroup) {
      section = lines[i].word;
      first_group = std::min(first_group, i);
    }
    if (lines[i].kind != Line::kOther && section == (group.empty() ? "" : "[" + group + "]"))
      place = i + 1;
  }
  if (place) return *place;
  while (first_group > 0 && first_group < lines.size() && lines[first_group - 1].text != "\n")
    --first_group;  // the comments of that group
  return first_group;
}

std::string Joined(const std::vector<Line>& lines, std::size_t place, const std::string& line) {
  std::string text;
  for (std::size_t i = 0; i <= lines.size(); ++i) {
    if (i == place) text += (text.empty() || text.ends_with('\n') ? "" : "\n") + line + "\n";
    if (i < lines.size()) text += lines[i].text;
  }
  return text;
}

/// The range without its `at`th name, as one word; empty when no single word is that.
std::string Without(const std::string& range, std::size_t at) {
  std::vector<std::string> names = ExpandRange(range);
  names.erase(names.begin() + static_cast<std::ptrdiff_t>(at));
  const std::vector<std::string> words = FoldNames(names);
  return words.size() == 1 && ExpandRange(words.front()) == names ? words.front() : "";
}

/// The line with the `at`th node of its range taken out, and its host with it.
std::string Shortened(const Line& line, std::size_t at) {
  std::string text(line.text);
  const auto shorten = [&](const std::string& lead, const std::string& range) {
    const std::size_t place = text.find(lead + range);
    const std::string rest = Without(range, at);
    if (place == std::string::npos || rest.empty()) return false;
    text.replace(place, lead.size() + range.size(), lead + rest);
    return true;
  };
  for (const std::string& word : InventoryWords(text.substr(0, text.find('\n')))) {
    const bool host = word.starts_with("host=") && ExpandRange(word.substr(5)).size() > 1;
    if (host && !shorten(" host=", word.substr(5))) return "";
  }
  return shorten("", line.word) ? text : "";
}

}  // namespace

std::string WithNode(const std::string& text, const std::string& path, const std::string& line,
                     const std::string& group) {
  const Inventory old = Inventory::Parse(text, path);
  const std::vector<std::string>& groups = old.Groups();
  if (!group.empty() && std::find(groups.begin(), groups.end(), group) == groups.end()) {
    const std::string nearest = opts::Nearest(group, groups);
    throw Refused(path, group,
                  "is no group there; " + (nearest.empty() ? "a line [" + group + "] makes it one"
                                                           : "did you mean '" + nearest + "'?"));
  }
  const std::vector<Line> lines = Lines(text);
  std::string changed = Joined(lines, PlaceIn(lines, group), line);
  static_cast<void>(Inventory::Parse(changed, path));
  return changed;
}

std::string WithoutNode(const std::string& text, const std::string& path, const std::string& name) {
  const Inventory inventory = Inventory::Parse(text, path);
  const Node* const node = inventory.Find(name);
  if (node == nullptr) {
    const std::string nearest = inventory.Nearest(name);
    throw Refused(
        path, name,
        "is no node there" + (nearest.empty() ? "" : "; did you mean '" + nearest + "'?"));
  }
  std::vector<Line> lines = Lines(text);
  Line& line = lines.at(node->line - 1);
  const std::vector<std::string> names = ExpandRange(line.word);
  std::string rest;
  if (names.size() > 1) {
    const auto at = std::find(names.begin(), names.end(), name) - names.begin();
    rest = Shortened(line, static_cast<std::size_t>(at));
    if (rest.empty()) {
      throw Refused(path, name,
                    "cannot be taken out of '" + line.word + "' in line " +
                        std::to_string(node->line) + "; change that line by hand");
    }
  }
  line.text = rest;
  std::string changed;
  for (const Line& each : lines) changed += each.text;
  static_cast<void>(Inventory::Parse(changed, path));
  return changed;
}

}  // namespace fleet
