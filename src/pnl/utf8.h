#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "pnl/export.h"

/// Texts as UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above U+10FFFF. All functions
/// are pure; bytes that are no UTF-8 count as characters of one byte and one column.
namespace utf8 {

struct Character {
  char32_t code = 0;
  std::size_t size = 1;  ///< bytes
  bool valid = false;    ///< false: one byte that begins no character
};

/// The character at the start of `text`, which is not empty.
[[nodiscard]] PNL_API Character First(std::string_view text);

/// Characters of a text that is UTF-8.
[[nodiscard]] PNL_API std::size_t Count(std::string_view text);

/// At most the first `size` bytes, without a part of a character at their end.
[[nodiscard]] PNL_API std::string_view Cut(std::string_view text, std::size_t size);

/// How many bytes at the end may be a character whose rest is still to come.
[[nodiscard]] PNL_API std::size_t Unfinished(std::string_view text);

// Text on its way to a terminal. Names, descriptions and logs come from repositories and nodes: what
// they hold must neither move the cursor nor shift a column.

/// `text` as UTF-8 that only prints: control characters and the marks that reorder text are
/// escaped ("\n", "\x1b", "\u202e"), bytes that are no UTF-8 become U+FFFD. Characters of `keep`
/// stay as they are.
[[nodiscard]] PNL_API std::string Printable(std::string_view text, std::string_view keep = "");

/// The columns that `text` takes: wide characters two, combining ones none, whatever the locale.
[[nodiscard]] PNL_API std::size_t Columns(std::string_view text);

/// Blanks that fill what `text` leaves of `width` columns.
[[nodiscard]] PNL_API std::string Padding(std::string_view text, std::size_t width);

/// The longest beginning of `text` that fits `columns`.
[[nodiscard]] PNL_API std::string_view Fitting(std::string_view text, std::size_t columns);

}  // namespace utf8
