#include "fleet/undo_lines.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <utility>
#include <vector>

#include "fleet/diff_lines.h"
#include "pnl/str.h"

namespace fleet {
namespace {

using Lines = std::vector<std::string_view>;

/// Lines of both texts that differ.
struct Hunk {
  Lines removed = {};
  Lines added = {};
  std::size_t begin = 0;  ///< of the added lines in the text after the change

  std::size_t End() const { return begin + added.size(); }
};

std::vector<Hunk> HunksOf(const std::vector<LineEdit>& edits) {
  std::vector<Hunk> hunks;
  std::size_t line = 0;
  bool open = false;
  for (const LineEdit& edit : edits) {
    if (edit.sign != ' ' && !open) hunks.push_back({.begin = line});
    open = edit.sign != ' ';
    if (edit.sign == '-') hunks.back().removed.push_back(edit.line);
    if (edit.sign == '+') hunks.back().added.push_back(edit.line);
    if (edit.sign != '-') ++line;
  }
  return hunks;
}

/// The text as it is now, and where in it the lines of the text after the change stand.
class Present {
 public:
  Present(std::string_view after, std::string_view now) {
    for (const LineEdit& edit : CompareLines(after, now)) {
      if (edit.sign != '+') places_.push_back(edit.sign == ' ' ? lines_.size() : kNone);
      if (edit.sign == '-') continue;
      lines_.push_back(edit.line);
      is_old_.push_back(edit.sign == ' ');
    }
    dropped_.resize(lines_.size());
  }

  /// Returns whether that could be done.
  bool TakeBack(const Hunk& hunk) {
    if (!hunk.added.empty() && AllStand(hunk)) {
      Replace(Places(hunk), hunk.removed);
      return true;
    }
    const auto [begin, end] = Between(hunk);
    if (!hunk.removed.empty() && Occurrences(hunk.removed, begin, end, false).size() == 1)
      return true;
    if (hunk.added.empty()) return Insert(hunk, begin, end);
    const std::vector<std::size_t> found = Occurrences(hunk.added, 0, lines_.size(), true);
    if (found.size() == 1) {
      std::vector<std::size_t> places;
      for (std::size_t i = 0; i < hunk.added.size(); ++i) places.push_back(found[0] + i);
      Replace(places, hunk.removed);
      return true;
    }
    // Somebody has removed what was added, and has put nothing in its place.
    return hunk.removed.empty() && found.empty() && begin == end;
  }

  std::string Text() const {
    std::string text;
    for (std::size_t i = 0; i <= lines_.size(); ++i) {
      const auto added = inserted_.find(i);
      if (added != inserted_.end())
        for (const std::string_view line : added->second) text += line;
      if (i < lines_.size() && !dropped_[i]) text += lines_[i];
    }
    return text;
  }

 private:
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  std::vector<std::size_t> Places(const Hunk& hunk) const {
    return {places_.begin() + static_cast<std::ptrdiff_t>(hunk.begin),
            places_.begin() + static_cast<std::ptrdiff_t>(hunk.End())};
  }

  bool AllStand(const Hunk& hunk) const {
    const std::vector<std::size_t> places = Places(hunk);
    return std::find(places.begin(), places.end(), kNone) == places.end();
  }

  /// The lines between the nearest old neighbours of the hunk.
  std::pair<std::size_t, std::size_t> Between(const Hunk& hunk) const {
    std::size_t begin = 0;
    for (std::size_t i = hunk.begin; i-- > 0 && begin == 0;)
      if (places_[i] != kNone) begin = places_[i] + 1;
    for (std::size_t i = hunk.End(); i < places_.size(); ++i)
      if (places_[i] != kNone) return {begin, places_[i]};
    return {begin, lines_.size()};
  }

  /// Where these lines stand one after the other; with `only_new`, lines that are not of others.
  std::vector<std::size_t> Occurrences(const Lines& wanted, std::size_t begin, std::size_t end,
                                       bool only_new) const {
    std::vector<std::size_t> found;
    for (std::size_t i = begin; i + wanted.size() <= end; ++i) {
      bool same = true;
      for (std::size_t k = 0; k < wanted.size() && same; ++k)
        same = lines_[i + k] == wanted[k] && !(only_new && (is_old_[i + k] || dropped_[i + k]));
      if (same) found.push_back(i);
    }
    return found;
  }

  bool Insert(const Hunk& hunk, std::size_t begin, std::size_t end) {
    const bool after_old = hunk.begin > 0 && places_[hunk.begin - 1] != kNone;
    const bool before_old = hunk.begin < places_.size() && places_[hunk.begin] != kNone;
    const bool at_edge = hunk.begin == 0 || hunk.begin == places_.size();
    if (!after_old && !before_old && !at_edge) return false;
    const bool at_end = before_old || hunk.begin == places_.size();
    Replace({}, hunk.removed, after_old || !at_end ? begin : end);
    return true;
  }

  void Replace(const std::vector<std::size_t>& places, const Lines& by, std::size_t at = 0) {
    for (const std::size_t place : places) dropped_[place] = true;
    Lines& lines = inserted_[places.empty() ? at : places.front()];
    lines.insert(lines.end(), by.begin(), by.end());
  }

  Lines lines_;
  std::vector<bool> is_old_;               // of each line: whether the text after the change has it
  std::vector<bool> dropped_;              // of each line
  std::vector<std::size_t> places_;        // of each line of the text after the change
  std::map<std::size_t, Lines> inserted_;  // before the line of that number
};

std::string Ended(std::string_view text) {
  std::string ended(text);
  if (!ended.empty() && !ended.ends_with('\n')) ended += '\n';
  return ended;
}

/// The last line end goes back, too, if it was the change that brought it.
bool LacksEnd(std::string_view before, std::string_view after, std::string_view now,
              std::string_view text) {
  const auto lacks = [](std::string_view all) { return !all.empty() && !all.ends_with('\n'); };
  if (lacks(before) == lacks(after) || lacks(after) != lacks(now)) return lacks(now);
  if (!lacks(before)) return false;
  std::string_view last = before;
  last.remove_prefix(before.rfind('\n') + 1);
  return text == Ended(last) || text.ends_with("\n" + Ended(last));
}

}  // namespace

LinesUndone UndoLines(std::string_view before, std::string_view after, std::string_view now) {
  constexpr std::size_t kShown = 100;
  // Lines are compared without regard to a missing line end of the last one.
  const std::string old_text = Ended(before);
  const std::string new_text = Ended(after);
  const std::string present = Ended(now);
  Present lines(new_text, present);
  for (const Hunk& hunk : HunksOf(CompareLines(old_text, new_text))) {
    if (lines.TakeBack(hunk)) continue;
    const std::string_view line =
        str::TrimView((hunk.added.empty() ? hunk.removed : hunk.added)[0]);
    return {.text = std::nullopt,
            .why = "the line '" + str::Shorten(line, kShown) +
                   (hunk.added.empty() ? "' cannot be put back, its place is gone"
                                       : "' was changed or stands there several times")};
  }
  std::string text = lines.Text();
  if (!text.empty() && LacksEnd(before, after, now, text)) text.pop_back();
  return {.text = std::move(text)};
}

}  // namespace fleet
