#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/export.h"

/// Many names as one word: "web[01-40,44]". Any thread may call these.
namespace fleet {

/// More nodes than this are taken for a mistake.
inline constexpr std::size_t kMaxNodes = 100000;

/// The names that `word` stands for, in its order. A bracket holds numbers and ranges of them with
/// commas between; a first number with leading zeros gives its width to all of its range. Several
/// brackets give each with each, the last one changing fastest. A word without brackets stands for
/// itself, and so does one with an IPv6 address ("[" at its begin or behind "@").
///
/// Throws std::invalid_argument, in words, for a bracket that is none, a range that goes down, and
/// more than kMaxNodes names, which are not made.
[[nodiscard]] FLEET_API std::vector<std::string> ExpandRange(std::string_view word);

/// The other way round: names that differ in one number only become one word, at the place of their
/// first. ExpandRange of each word of the answer gives all the names again, a name once.
[[nodiscard]] FLEET_API std::vector<std::string> FoldNames(const std::vector<std::string>& names);

/// The words of a list, with commas between; those within brackets belong to the word.
[[nodiscard]] FLEET_API std::vector<std::string> SplitNames(std::string_view list);

}  // namespace fleet
