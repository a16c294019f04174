#include "parser/token.h"

#include <algorithm>

namespace pnl_token {
namespace {

/// Walks a text once, line by line.
class Scanner {
 public:
  Scanner(std::string_view text, const Params& rules) : text_(text), rules_(rules) {}

  bool AtEnd() const { return at_ == text_.size(); }

  Line TakeLine() {
    const std::size_t begin = at_;
    Line line;
    bool ended = false;
    while (!ended && !AtEnd()) {
      switch (rules_.RoleOf(text_[at_])) {
        case Role::kWord:
          line.words.push_back(TakeWord());
          break;
        case Role::kSeparator:
          ++at_;
          break;
        case Role::kComment:
          SkipComment();
          break;
        case Role::kLineEnd:
          ++at_;
          ended = true;
          break;
      }
    }
    line.text = text_.substr(begin, at_ - begin);
    return line;
  }

 private:
  std::string_view TakeWord() {
    const std::size_t begin = at_;
    while (!AtEnd() && rules_.RoleOf(text_[at_]) == Role::kWord) ++at_;
    return text_.substr(begin, at_ - begin);
  }

  void SkipComment() {
    // The search starts after the first character, because a comment's begin and end may be the
    // same character.
    at_ = std::min(text_.find(rules_.CommentEnd(text_[at_]), at_ + 1), text_.size());
  }

  std::string_view text_;
  const Params& rules_;
  std::size_t at_ = 0;
};

}  // namespace

Params& Params::Add(const CharToken& rule) {
  for (const char c : rule.chars) roles_[static_cast<unsigned char>(c)] = rule.role;
  return *this;
}

Params& Params::Add(const Comment& rule) {
  roles_[static_cast<unsigned char>(rule.from)] = Role::kComment;
  comment_ends_[static_cast<unsigned char>(rule.from)] = rule.to;
  return *this;
}

bool Params::IsWord(std::string_view text) const {
  return !text.empty() && std::all_of(text.begin(), text.end(), [this](char c) {
    return c != '\0' && RoleOf(c) == Role::kWord;
  });
}

std::vector<Line> Parse(std::string_view text, const Params& rules) {
  std::vector<Line> lines;
  for (Scanner scanner(text, rules); !scanner.AtEnd();) {
    Line line = scanner.TakeLine();
    if (!line.words.empty()) lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace pnl_token
