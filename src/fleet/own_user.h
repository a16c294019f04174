#pragma once

#include <string>

/// For the sources of this directory only.
namespace fleet {

/// The effective user of this process, as passwd(5) has it.
struct OwnUser {
  std::string name;  ///< the number of a user who is not in it
  std::string home;  ///< then ""
};
[[nodiscard]] OwnUser FindOwnUser();

}  // namespace fleet
