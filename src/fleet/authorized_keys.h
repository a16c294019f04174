#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fleet/export.h"

/// The text of authorized_keys files (sshd(8), AUTHORIZED_KEYS FILE FORMAT). Pure functions.
namespace fleet {

/// The parts of a line; all are empty for a blank line, a comment, or a line without a key.
struct KeyLine {
  std::string options;  ///< in front of the key, "from=\"10.0.0.1\",no-pty"
  std::string key;      ///< in the form of KeyOf
  std::string comment;  ///< all behind it, without white space at both ends
};
[[nodiscard]] FLEET_API KeyLine SplitKeyLine(std::string_view line);

/// Type and base64 text of the key in a line, "ssh-rsa AAAA...", without its options and comment;
/// "" for a blank line, a comment, or a line without a key. The base64 text is not checked.
[[nodiscard]] FLEET_API std::string KeyOf(std::string_view line);

/// The lines of `text` with `key` (in the form of KeyOf), without line ends.
[[nodiscard]] FLEET_API std::vector<std::string> LinesWith(std::string_view text,
                                                           std::string_view key);
/// `text` without these lines, the rest byte for byte.
[[nodiscard]] FLEET_API std::string WithoutKey(std::string_view text, std::string_view key);

/// Whether `text` has every line of `old_text`.
[[nodiscard]] FLEET_API bool HasAllLines(std::string_view text, std::string_view old_text);

}  // namespace fleet
