#pragma once

#include <string>

#include "fleet/export.h"

namespace fleet {

/// What a package manager (apt-get, dpkg, yum, dnf, rpm) says about its failure, out of all that it
/// printed: from the first line that tells one to the end, on one line. "" when no line does. Pure.
[[nodiscard]] FLEET_API std::string FailureOf(std::string output);

}  // namespace fleet
