#pragma once

#include <vector>

#include "fleet/run_step.h"

/// Changes of the SSH server's own configuration: a mistake in it locks everybody out. For the sources
/// of this directory only.
namespace fleet {

/// Adds a step behind the last one that changes the configuration: it has sshd(8) check all of it, and
/// read it. The step runs again when the changes were undone.
void AddSshdStep(std::vector<RunStep>& steps);
/// Whether there is such a step: one more login has to show then that nodes still let people in.
[[nodiscard]] bool HasSshdStep(const std::vector<RunStep>& steps);

}  // namespace fleet
