#pragma once

#include <array>
#include <string_view>
#include <vector>

#include "pnl/export.h"

/// Divides the text of a configuration file into lines and words, by rules that depend on the kind
/// of file:
///
///     pnl_token::Params rules;
///     rules.Add(pnl_token::CharToken{pnl_token::Role::kSeparator, "\t\r "})
///         .Add(pnl_token::CharToken{pnl_token::Role::kLineEnd, "\n"})
///         .Add(pnl_token::Comment{'#', '\n'});
///     for (const pnl_token::Line& line : pnl_token::Parse(text, rules)) Use(line.words);
///
/// Any byte may occur in a text. A byte without a rule is part of a word. All functions are pure.
namespace pnl_token {

/// The role of a character.
enum class Role : unsigned char { kWord, kSeparator, kLineEnd, kComment };

/// Rule: each of `chars` has the role kSeparator or kLineEnd.
struct CharToken {
  Role role;
  std::string_view chars;
};

/// Rule: the text from `from` up to the next `to` is a comment, even inside a word. The character
/// `to` keeps its own role: a comment up to a line end does not include it.
struct Comment {
  char from;
  char to;
};

/// The rules of one kind of file. When a character has two rules, the later one counts.
class PNL_API Params {
 public:
  Params& Add(const CharToken& rule);
  Params& Add(const Comment& rule);

  Role RoleOf(char c) const { return roles_[static_cast<unsigned char>(c)]; }
  /// The character that ends a comment begun by `from`.
  char CommentEnd(char from) const { return comment_ends_[static_cast<unsigned char>(from)]; }
  /// Whether `text` can be written as one word: not empty, only word characters, no NUL.
  [[nodiscard]] bool IsWord(std::string_view text) const;

 private:
  std::array<Role, 256> roles_{};
  std::array<char, 256> comment_ends_{};
};

/// One line of a text; the views point into that text.
struct Line {
  std::string_view text;                ///< the whole line with comment and line end
  std::vector<std::string_view> words;  ///< at least one
};

/// The lines of `text` in order; lines without a word (empty, or only a comment) are left out.
[[nodiscard]] PNL_API std::vector<Line> Parse(std::string_view text, const Params& rules);

}  // namespace pnl_token
