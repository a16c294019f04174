#pragma once

#include <string>
#include <string_view>
#include <vector>

/// How a line of an inventory is read; the same for those who read it and who change it.
namespace fleet {

/// Its words: those of ShellWords. A "#" within the first one begins a comment, too: "10.0.0.1#web".
[[nodiscard]] std::vector<std::string> InventoryWords(std::string_view line);

/// Whether a line with this first word opens a group. No IPv6 address in brackets does.
[[nodiscard]] bool OpensGroup(const std::string& word);

}  // namespace fleet
