#pragma once

#include "fleet/journal.h"

/// The owners of runs; for the sources of this directory only.
namespace fleet {

/// Makes this process the owner.
void BecomeOwner(RunHead& run);

enum class OwnerLife {
  kOver,    ///< the owner has ended, or is this process
  kLives,   ///< it runs on this host
  kUnseen,  ///< it is or was on another host
};
[[nodiscard]] OwnerLife LifeOfOwner(const RunHead& run);
/// Whether this process is the owner.
[[nodiscard]] bool IsOwn(const RunHead& run);

}  // namespace fleet
