#pragma once

#include <string>
#include <string_view>

/// Any text as a word of PortableCommand; for the sources of this directory only.
namespace pnl_host {

/// `text` for `printf %b`, which decodes it. Bytes that a login shell may change are written in octal:
/// line ends, quotes, exclamation marks and backslashes, and all that is not ASCII. `text` must not
/// contain a NUL.
[[nodiscard]] std::string EncodedWord(std::string_view text);

}  // namespace pnl_host
