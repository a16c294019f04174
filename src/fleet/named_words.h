#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pnl/str.h"

/// Values with names as one line of ASCII, "NAME=VALUE NAME=VALUE", for the books; for the sources of this
/// directory only.
namespace fleet {

using NamedWords = std::vector<std::pair<std::string, std::string>>;

/// The words without those whose value is "". Values are percent-encoded, so that the separator, a comma or
/// a semicolon is in none of them.
[[nodiscard]] std::string WordsText(const NamedWords& words, char separator = ' ');
/// The values of such a line by name. Throws pnl_err::Error(`what`, "read", WORD), with a message.
[[nodiscard]] StringMap ReadWords(std::string_view text, const char* what, char separator = ' ');

}  // namespace fleet
