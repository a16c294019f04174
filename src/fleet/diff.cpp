#include "fleet/diff.h"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "fleet/diff_lines.h"

namespace fleet {
namespace {

using Lines = std::vector<std::string_view>;

constexpr std::ptrdiff_t kContext = 3;
constexpr std::ptrdiff_t kMaxEdits = 2000;  // row d of the search has 2 d + 1 numbers: 32 MB in all

/// Lines with their line end; the last one may lack it.
Lines SplitLines(std::string_view text) {
  Lines lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const std::size_t size = end == std::string_view::npos ? text.size() : end + 1;
    lines.push_back(text.substr(0, size));
    text.remove_prefix(size);
  }
  return lines;
}

/// Myers' greedy search for the shortest edit script ("An O(ND) Difference Algorithm", 1986). After
/// d edits, row d has the furthest x for each diagonal k = x - y.
class Search {
 public:
  Search(const Lines& before, const Lines& after) : before_(before), after_(after) {}

  std::vector<LineEdit> Run() {
    const std::ptrdiff_t most =
        std::min(std::ssize(before_) + std::ssize(after_), std::ptrdiff_t{kMaxEdits});
    for (std::ptrdiff_t d = 0; d <= most; ++d) {
      if (Step(d)) return TraceBack(d);
    }
    return Replacement();
  }

 private:
  /// Computes row d (diagonals -d to d); true when it reaches the end of both texts.
  bool Step(std::ptrdiff_t d) {
    std::vector<std::ptrdiff_t>& row = rows_.emplace_back(static_cast<std::size_t>(2 * d + 1));
    for (std::ptrdiff_t k = -d; k <= d; k += 2) {
      std::ptrdiff_t x = d == 0 ? 0 : Begin(d, k);
      while (x < std::ssize(before_) && x - k < std::ssize(after_) && Before(x) == After(x - k)) {
        ++x;
      }
      row[static_cast<std::size_t>(k + d)] = x;
      if (x >= std::ssize(before_) && x - k >= std::ssize(after_)) return true;
    }
    return false;
  }

  /// An addition comes from the diagonal above, a removal from the one below, whichever is ahead.
  bool IsAddition(std::ptrdiff_t d, std::ptrdiff_t k) const {
    return k == -d || (k != d && Reached(d - 1, k - 1) < Reached(d - 1, k + 1));
  }

  std::ptrdiff_t Begin(std::ptrdiff_t d, std::ptrdiff_t k) const {
    return IsAddition(d, k) ? Reached(d - 1, k + 1) : Reached(d - 1, k - 1) + 1;
  }

  std::ptrdiff_t Reached(std::ptrdiff_t d, std::ptrdiff_t k) const {
    return rows_[static_cast<std::size_t>(d)][static_cast<std::size_t>(k + d)];
  }

  std::vector<LineEdit> TraceBack(std::ptrdiff_t d) const {
    std::vector<LineEdit> edits;
    std::ptrdiff_t x = std::ssize(before_);
    std::ptrdiff_t k = x - std::ssize(after_);
    for (; d > 0; --d) {
      const std::ptrdiff_t begin = Begin(d, k);
      while (x > begin) edits.push_back({' ', Before(--x)});
      if (IsAddition(d, k)) {
        edits.push_back({'+', After(x - ++k)});
      } else {
        edits.push_back({'-', Before(--x)});
        --k;
      }
    }
    while (x > 0) edits.push_back({' ', Before(--x)});
    std::reverse(edits.begin(), edits.end());
    return edits;
  }

  std::vector<LineEdit> Replacement() const {
    std::vector<LineEdit> edits;
    for (const std::string_view line : before_) edits.push_back({'-', line});
    for (const std::string_view line : after_) edits.push_back({'+', line});
    return edits;
  }

  std::string_view Before(std::ptrdiff_t i) const { return before_[static_cast<std::size_t>(i)]; }
  std::string_view After(std::ptrdiff_t i) const { return after_[static_cast<std::size_t>(i)]; }

  const Lines& before_;
  const Lines& after_;
  std::vector<std::vector<std::ptrdiff_t>> rows_;
};

}  // namespace

/// The equal lines at both ends are left out of the search.
std::vector<LineEdit> CompareLines(std::string_view old_text, std::string_view new_text) {
  Lines before = SplitLines(old_text);
  Lines after = SplitLines(new_text);
  const auto [b, a] = std::mismatch(before.begin(), before.end(), after.begin(), after.end());
  const Lines head(before.begin(), b);
  before.erase(before.begin(), b);
  after.erase(after.begin(), a);
  Lines tail;
  while (!before.empty() && !after.empty() && before.back() == after.back()) {
    tail.push_back(before.back());
    before.pop_back();
    after.pop_back();
  }

  std::vector<LineEdit> edits;
  for (const std::string_view line : head) edits.push_back({' ', line});
  for (const LineEdit& edit : Search(before, after).Run()) edits.push_back(edit);
  for (auto line = tail.rbegin(); line != tail.rend(); ++line) edits.push_back({' ', *line});
  return edits;
}

namespace {

/// "12,3" of a hunk's heading: first line and count; an empty range names the line before it.
std::string RangeText(std::ptrdiff_t lines_before, std::ptrdiff_t count) {
  const std::string first = std::to_string(count == 0 ? lines_before : lines_before + 1);
  return count == 1 ? first : first + "," + std::to_string(count);
}

/// Walks the edits and writes those near a change as hunks.
class Hunks {
 public:
  explicit Hunks(const std::vector<LineEdit>& edits) : edits_(edits) {}

  std::string Text() {
    std::string out;
    for (std::ptrdiff_t change = NextChange(0); change < std::ssize(edits_);) {
      const std::ptrdiff_t begin = std::max(change - kContext, done_);
      std::ptrdiff_t end = change;
      // A gap of up to twice the context would make hunks overlap: it joins them.
      while (change < std::ssize(edits_) && change - end <= 2 * kContext) {
        end = change + 1;
        change = NextChange(end);
      }
      Skip(begin);
      out += Hunk(std::min(end + kContext, std::ssize(edits_)));
    }
    return out;
  }

 private:
  std::ptrdiff_t NextChange(std::ptrdiff_t i) const {
    while (i < std::ssize(edits_) && edits_[static_cast<std::size_t>(i)].sign == ' ') ++i;
    return i;
  }

  void Skip(std::ptrdiff_t to) {  // over lines that both texts have
    before_ += to - done_;
    after_ += to - done_;
    done_ = to;
  }

  std::string Hunk(std::ptrdiff_t end) {
    std::string body;
    std::ptrdiff_t removed = 0;
    std::ptrdiff_t added = 0;
    for (; done_ < end; ++done_) {
      const LineEdit& edit = edits_[static_cast<std::size_t>(done_)];
      if (edit.sign != '+') ++removed;
      if (edit.sign != '-') ++added;
      body += edit.sign;
      body += edit.line;
      if (!edit.line.ends_with('\n')) body += "\n\\ No newline at end of file\n";
    }
    const std::string heading =
        "@@ -" + RangeText(before_, removed) + " +" + RangeText(after_, added) + " @@\n";
    before_ += removed;
    after_ += added;
    return heading + body;
  }

  const std::vector<LineEdit>& edits_;
  std::ptrdiff_t done_ = 0;    // edits written or skipped
  std::ptrdiff_t before_ = 0;  // lines of each text among them
  std::ptrdiff_t after_ = 0;
};

}  // namespace

std::string UnifiedDiff(std::string_view before, std::string_view after, const std::string& name) {
  if (before == after) return "";
  const std::vector<LineEdit> edits = CompareLines(before, after);
  return "--- " + name + "\n+++ " + name + "\n" + Hunks(edits).Text();
}

}  // namespace fleet
