#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "fleet/export.h"

/// Takes back a change of some lines of a text that others have changed since.
///
///     const fleet::LinesUndone undone = fleet::UndoLines("a=1\n", "a=2\n", "a=2\nb=1\n");
///     if (undone.text) Show(*undone.text);  // "a=1\nb=1\n"
///
/// Pure; thread-safe.
namespace fleet {

struct LinesUndone {
  std::optional<std::string> text;  ///< null: it cannot be done
  std::string why = {};             ///< why not, for people; it names a line
};

/// Changes in `now` only the lines that differ between `before` and `after`, back to those of `before`.
/// Lines that others have added, changed or removed stay. A changed line is found where it stood, or
/// anywhere if it stands there once. One that is already as before stays so.
[[nodiscard]] FLEET_API LinesUndone UndoLines(std::string_view before, std::string_view after,
                                              std::string_view now);

}  // namespace fleet
