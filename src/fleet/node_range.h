#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/export.h"

/// Many names as one word, such as "web[01-40,44]". Thread-safe.
namespace fleet {

/// The most nodes of an inventory or a selection; more are refused as a mistake.
inline constexpr std::size_t kMaxNodes = 100000;

/// Returns the names that `word` means, in order. A bracket contains numbers and ranges of numbers
/// with commas between them. If the first number of a range has leading zeros, all its numbers get
/// that width. Several brackets are combined; the last one changes first. A bracket at the beginning
/// of the word or after "@" is an IPv6 address, not a range. A word without ranges means itself.
///
/// Throws std::invalid_argument, with a text for people, for a wrong bracket, a descending range, and
/// more than kMaxNodes names; these are counted before they are made.
[[nodiscard]] FLEET_API std::vector<std::string> ExpandRange(std::string_view word);

/// The opposite of ExpandRange: combines names that differ only in their last number. A combined
/// word stands where the first of its names stood. A name that occurs twice is returned once.
[[nodiscard]] FLEET_API std::vector<std::string> FoldNames(const std::vector<std::string>& names);

/// Splits a list at its commas, except those inside brackets.
[[nodiscard]] FLEET_API std::vector<std::string> SplitNames(std::string_view list);

}  // namespace fleet
