#pragma once

#include <array>
#include <string_view>
#include <vector>

#include "pnl/export.h"

/// Cuts the text of a configuration file into lines of words, by rules that belong to the file's
/// kind:
///
///     pnl_token::Params rules;
///     rules.Add(pnl_token::CharToken{pnl_token::Role::kSeparator, "\t\r "})
///         .Add(pnl_token::CharToken{pnl_token::Role::kLineEnd, "\n"})
///         .Add(pnl_token::Comment{'#', '\n'});
///     for (const pnl_token::Line& line : pnl_token::Parse(text, rules)) Use(line.words);
///
/// Any byte may occur in a text; one without a rule belongs to a word.
namespace pnl_token {

/// What a character does.
enum class Role : unsigned char { kWord, kSeparator, kLineEnd, kComment };

/// Rule: each of `chars` has the role kSeparator or kLineEnd.
struct CharToken {
  Role role;
  std::string_view chars;
};

/// Rule: what stands from `from` up to the next `to` is ignored, also inside a word. `to` itself
/// keeps its own role: a comment to the end of the line does not swallow the line's end.
struct Comment {
  char from;
  char to;
};

/// The rules of one kind of file; of two for one character, the later one counts.
class PNL_API Params {
 public:
  Params& Add(const CharToken& rule);
  Params& Add(const Comment& rule);

  Role RoleOf(char c) const { return roles_[static_cast<unsigned char>(c)]; }
  /// Where a comment that begins with `from` ends.
  char CommentEnd(char from) const { return comment_ends_[static_cast<unsigned char>(from)]; }
  /// Whether `text` can stand in a file as one word: not empty, only word characters, no NUL.
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

/// The lines of `text` in order; those without a word (blank, only a comment) are left out.
[[nodiscard]] PNL_API std::vector<Line> Parse(std::string_view text, const Params& rules);

}  // namespace pnl_token
