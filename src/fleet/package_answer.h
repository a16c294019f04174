#pragma once

#include <string>

#include "fleet/export.h"

namespace fleet {

/// The failure message in the output of a package manager (apt-get, dpkg, yum, dnf, rpm): the text
/// from the first line that reports a failure to the end, joined to one line. "" when no line does.
/// Pure.
[[nodiscard]] FLEET_API std::string FailureOf(std::string output);

}  // namespace fleet
