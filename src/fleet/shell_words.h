#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fleet/export.h"

/// Lines of files with words that are written as in a shell. Thread-safe.
namespace fleet {

/// Returns the words of a line. Blanks separate them. '...' and "..." contain blanks. A backslash
/// quotes the next character; inside "..." it quotes only a double quote and a backslash. A word
/// that begins with "#" starts a comment. Nothing is expanded. Throws std::invalid_argument, with a
/// text for people, if a quote does not end.
[[nodiscard]] FLEET_API std::vector<std::string> ShellWords(std::string_view line);

/// Returns `word` as ShellWords reads it, with quotes only if they are needed. `word` must not
/// contain a line end.
[[nodiscard]] FLEET_API std::string QuotedWord(std::string_view word);

}  // namespace fleet
