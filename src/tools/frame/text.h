#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Text on its way to a terminal. Names, descriptions and logs come from repositories and nodes:
/// what they hold must neither move the cursor nor shift a column.
namespace tools {

/// `text` as UTF-8 that only prints: control characters and the marks that reorder text are
/// escaped ("\n", "\x1b", "\u202e"), bytes that are no UTF-8 become U+FFFD. Characters of `keep`
/// stay as they are.
[[nodiscard]] std::string Printable(std::string_view text, std::string_view keep = "");

/// The columns that `text` takes: wide characters two, combining ones none.
[[nodiscard]] std::size_t Columns(std::string_view text);

/// The longest beginning of `text` that fits `columns`.
[[nodiscard]] std::string_view Fitting(std::string_view text, std::size_t columns);

}  // namespace tools
