#pragma once

#include <string>

#include "faults/guard_node.h"

namespace faults {

extern const char* const kRaceRow;

/// Steps of so many runs are claimed by a session at about the second at which their guard goes off, many
/// at the same time. Prints the row.
void RunRaces(int races, bool with_systemd, const GuardTimes& times);

}  // namespace faults
