#pragma once

#include <optional>
#include <string>

#include "brefir/simpleconfig.h"
#include "fleet/export.h"

/// The change of one key of a configuration file, as its new text: all other lines, the comment
/// behind the value and the kind of line ends stay.
///
///     const utils::LineSyntax syntax{"#", "=", ""};
///     const std::string after = fleet::SetConfigKey(text, "port", "8080", syntax);
///
/// For any number of threads.
namespace fleet {

/// Sets the key in place of its first line, else at the end; with an `after` that is not the key
/// itself, behind the first line that begins with it, as utils::lines::Set does. Value and key have
/// to fit the syntax. pnl_err::Missed("after", after) when no line begins so.
[[nodiscard]] FLEET_API std::string SetConfigKey(const std::string& text, const std::string& key,
                                                 const std::string& value,
                                                 const utils::LineSyntax& syntax,
                                                 const std::string& after = "");

/// Removes all lines of the key; null when there is none.
[[nodiscard]] FLEET_API std::optional<std::string> RemoveConfigKey(const std::string& text,
                                                                   const std::string& key,
                                                                   const utils::LineSyntax& syntax);

}  // namespace fleet
