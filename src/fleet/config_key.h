#pragma once

#include <optional>
#include <string>

#include "brefir/simpleconfig.h"
#include "fleet/export.h"

/// Changes one key in the text of a configuration file. All other lines, the comment after the
/// value and the kind of line ends stay.
///
///     const utils::LineSyntax syntax{"#", "=", ""};
///     const std::string after = fleet::SetConfigKey(text, "port", "8080", syntax);
///
/// Thread-safe.
namespace fleet {

/// Returns the text with the key set: in its first line, else in a new line at the end. When
/// `after` is not empty and not the key itself, the line is put after the first line that begins
/// with `after`, as utils::lines::Set does; pnl_err::Missed("after", after) when there is no such
/// line. Value and key must fit the syntax.
[[nodiscard]] FLEET_API std::string SetConfigKey(const std::string& text, const std::string& key,
                                                 const std::string& value,
                                                 const utils::LineSyntax& syntax,
                                                 const std::string& after = "");

/// Returns the text without the lines of the key; null when there are none.
[[nodiscard]] FLEET_API std::optional<std::string> RemoveConfigKey(const std::string& text,
                                                                   const std::string& key,
                                                                   const utils::LineSyntax& syntax);

}  // namespace fleet
