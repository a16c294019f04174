#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fleet/export.h"

/// The text of authorized_keys files (sshd(8), AUTHORIZED_KEYS FILE FORMAT). Any thread may call
/// these.
namespace fleet {

/// Type and base64 text of the key that stands in a line, "ssh-rsa AAAA...", whatever its options
/// and comment; "" for a blank line, a comment, or a line without a key. The base64 text is not
/// looked into.
[[nodiscard]] FLEET_API std::string KeyOf(std::string_view line);

/// The lines of `text` that hold `key` (as KeyOf gives it), without their ends.
[[nodiscard]] FLEET_API std::vector<std::string> LinesWith(std::string_view text,
                                                           std::string_view key);
/// `text` without those lines, the rest byte for byte.
[[nodiscard]] FLEET_API std::string WithoutKey(std::string_view text, std::string_view key);

/// Whether each line of `old_text` stands in `text`, too.
[[nodiscard]] FLEET_API bool HasAllLines(std::string_view text, std::string_view old_text);

}  // namespace fleet
