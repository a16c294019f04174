#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fleet/export.h"

/// Lines of files whose words are written as a shell's.
namespace fleet {

/// The words of a line, without expansions: blanks separate them; '...' and "..." keep blanks, a
/// backslash the character behind it (in "..." only the quote and itself); "#" at the begin of a
/// word starts a comment. Throws std::invalid_argument, in words, for a quote that does not end.
/// For any thread.
[[nodiscard]] FLEET_API std::vector<std::string> ShellWords(std::string_view line);

/// `word` as it is written in such a line, with quotes only where they are needed. A line end cannot
/// be written. For any thread.
[[nodiscard]] FLEET_API std::string QuotedWord(std::string_view word);

}  // namespace fleet
