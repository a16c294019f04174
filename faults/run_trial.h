#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "faults/run_site.h"

namespace faults {

/// What is done while something fails.
enum class RunWork {
  kMake,    ///< a run that is good
  kFail,    ///< a run that fails on the last node at its last step, and is undone
  kUndo,    ///< a run that has ended is undone
  kResume,  ///< a run whose process was killed while it made its steps is resumed
};

struct RunOperation {
  std::string name;
  RunWork work;
};
const std::vector<RunOperation>& RunOperations();

/// A change of a site that is made or undone while something fails, and then brought to its end.
class RunTrial {
 public:
  /// Afterwards the run is resumed or undone. `secret`: with the secret file, where the work allows it.
  RunTrial(RunSite& site, RunWork work, bool resumes, const RunTimes& times, bool secret);

  /// Does what the work begins with.
  void Prepare();
  /// Throws what the run throws.
  void Work(const fleet::RunWatch& watch = {}) const;
  /// Ends the run as another process does. Returns what is then on the nodes, and is to be there from
  /// now on: "old" or "new"; "unknown" if the books say of a command that nobody knows whether it had
  /// its effect; else what must not be, in words.
  std::string Recover(const fleet::RunWatch& watch = {});
  /// What Recover returns when nothing has failed and the run is resumed.
  const char* WholeState() const;

 private:
  void KillWhileMaking() const;
  std::int64_t Last() const;

  RunSite& site_;
  RunWork work_;
  bool resumes_;
  RunTimes times_;
  RunChange change_;
  std::int64_t before_ = 0;  ///< the last run before the work
};

}  // namespace faults
