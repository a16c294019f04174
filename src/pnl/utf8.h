#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "pnl/export.h"

/// Texts as UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above U+10FFFF. All
/// functions are pure; each byte that is not valid UTF-8 counts as a character of one byte and one
/// column.
namespace utf8 {

struct Character {
  char32_t code = 0;
  std::size_t size = 1;  ///< bytes
  bool valid = false;    ///< false: a single byte that is not valid UTF-8
};

/// The character at the start of `text`, which is not empty.
[[nodiscard]] PNL_API Character First(std::string_view text);

/// Characters of a text that is UTF-8.
[[nodiscard]] PNL_API std::size_t Count(std::string_view text);

/// At most the first `size` bytes, without a part of a character at their end.
[[nodiscard]] PNL_API std::string_view Cut(std::string_view text, std::size_t size);

/// The number of bytes at the end that may be the first part of a character.
[[nodiscard]] PNL_API std::size_t Unfinished(std::string_view text);

// Text for a terminal. Names, descriptions and logs come from repositories and nodes; they must
// neither move the cursor nor shift a column.

/// `text` as UTF-8 that is safe to print. Control characters and the marks that reorder text are
/// escaped ("\n", "\x1b", "\u202e"); bytes that are not valid UTF-8 become U+FFFD. Characters in
/// `keep` are not changed.
[[nodiscard]] PNL_API std::string Printable(std::string_view text, std::string_view keep = "");

/// The columns that `text` takes: two for a wide character, none for a combining one, whatever the
/// locale.
[[nodiscard]] PNL_API std::size_t Columns(std::string_view text);

/// The blanks that are needed to fill `text` up to `width` columns.
[[nodiscard]] PNL_API std::string Padding(std::string_view text, std::size_t width);

/// The longest beginning of `text` that fits `columns`.
[[nodiscard]] PNL_API std::string_view Fitting(std::string_view text, std::size_t columns);

}  // namespace utf8
