#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/host_steps.h"
#include "pnl/err.h"

/// What hosts answer to the commands of host_steps.h; for the sources of this directory only.
///
/// A host may be broken, or in somebody else's hands: an answer is whole, or it is an error. All
/// functions throw kRunFailed, with a message, for an answer that is cut, and for a refusal.
namespace fleet::answers {

/// Where a look stands in the place of the run.
inline constexpr const char* kLook = "look";

/// All that a command has said.
struct Answer {
  std::string host;  ///< its name
  std::string run;   ///< what it was about: a run's name, or kLook
  std::string nonce;
  std::string output;
  std::string complaint;  ///< of its standard error
};

[[nodiscard]] pnl_err::Error Failed(const std::string& host, const std::string& run,
                                    const std::string& reason);

/// Whether the package manager of the host is asked for something.
[[nodiscard]] bool AsksForPackages(const Looks& looks);

[[nodiscard]] Sight ReadSight(const Answer& answer, const Looks& looks);

/// A verdict for each of `steps` steps, of which the command got the first `asked`, and the first
/// `done` were made before.
[[nodiscard]] std::vector<Verdict> ReadMade(const Answer& answer, std::size_t steps,
                                            std::size_t asked, std::size_t done);
/// A verdict for each of `steps` steps; the command got those with the numbers `asked`, and some of
/// them in several parts, of which the worst counts. There is nothing to undo for the others.
[[nodiscard]] std::vector<Verdict> ReadUndone(const Answer& answer, std::size_t steps,
                                              const std::set<std::size_t>& asked,
                                              GuardState* guard = nullptr);
/// Throws unless the guard's token was claimed.
void ReadClaimed(const Answer& answer);
void ReadEnded(const Answer& answer);
[[nodiscard]] std::vector<Salvaged> ReadSalvaged(const Answer& answer);

}  // namespace fleet::answers
