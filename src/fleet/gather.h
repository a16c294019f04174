#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "fleet/export.h"

/// Equal answers of many nodes as one.
namespace fleet {

/// Nodes that gave the same answer.
struct Gathered {
  std::string names;                 ///< "web[1-3],db1", as a selection takes it
  std::vector<std::size_t> members;  ///< their indexes, in order
  std::string answer;
};

/// Groups the nodes by answer. `names` and `answers` have the same length. The largest group comes
/// first; groups of the same size are in the order of their first nodes. Thread-safe.
[[nodiscard]] FLEET_API std::vector<Gathered> Gather(const std::vector<std::string>& names,
                                                     const std::vector<std::string>& answers);

}  // namespace fleet
