#pragma once

#include <cstddef>
#include <string_view>

#include "pnl/export.h"

/// Texts as UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above U+10FFFF.
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

}  // namespace utf8
