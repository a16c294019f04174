#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "fleet/run_step.h"
#include "pnl/ssh.h"

/// Which steps of a run are made under a guard: the node puts them back by itself, unless a fresh login
/// shows in time that it can still be reached.
///
///     const fleet::RunStep step{.object = "/root/.ssh/authorized_keys"};
///     if (fleet::CanLockOut(step, {.host = "web1"})) Show("guarded");
///
/// All functions are thread-safe.
namespace fleet {

/// The guard of a run.
struct Guarding {
  int seconds = 0;   ///< 0: none
  bool all = false;  ///< of all steps, also those that cannot lock anybody out
};

/// Whether a mistake in the step can lock the panel out: keys, sshd, PAM, the network, and sudo where the
/// login needs it.
[[nodiscard]] FLEET_API bool CanLockOut(const RunStep& step, const pnl_rpc::SshOptions& login);

/// Steps that are made by one command.
struct StepGroup {
  std::size_t end = 0;  ///< the first one behind it
  bool guarded = false;
};
/// The group that begins at `begin`, of the steps up to `limit`. Commands and packages are not in a group
/// with steps that are guarded only because they can lock out: they may take longer than the guard. A
/// login of null is this host: nothing is guarded there.
[[nodiscard]] FLEET_API StepGroup GroupFrom(const std::vector<RunStep>& steps, std::size_t begin,
                                            std::size_t limit, const Guarding& guarding,
                                            const std::optional<pnl_rpc::SshOptions>& login);

/// What people should know of the guard before the steps are made; "" if nothing. `at_boot`:
/// Sight::guards_at_boot.
[[nodiscard]] FLEET_API std::string GuardNote(const std::vector<RunStep>& steps,
                                              const Guarding& guarding,
                                              const std::optional<pnl_rpc::SshOptions>& login,
                                              bool at_boot);

}  // namespace fleet
