#pragma once

#include <string>

/// Where brefir keeps what it remembers; for the sources of this directory only.
namespace fleet {

/// The directory for this user and the working directory. Only root may write in the panel's own.
[[nodiscard]] std::string StateDir();

}  // namespace fleet
