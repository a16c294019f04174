#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "fleet/journal.h"
#include "fleet/run.h"
#include "tools/frame/verb.h"

namespace tools {

// One function per verb of the family "run", in VERB.cpp.
Verb RunListVerb();
Verb RunShowVerb();
Verb RunLogVerb();
Verb RunResumeVerb();
Verb RunUndoVerb();
Verb RunWriteOffVerb();
Verb RunPruneVerb();
Verb RunSalvageVerb();

/// A run without its nodes, as `list` and `show` print it.
struct CountedRun {
  fleet::RunHead head;
  fleet::Journal::Counts counts;
};
[[nodiscard]] const FieldTable<CountedRun>& RunFields();

/// The word ID.
opts::Arg& AddRunId(opts::Args& args);
/// Throws Missed if it is no number.
[[nodiscard]] std::int64_t RunId(const Context& context);

/// --forks and --node-deadline, and the options of logins.
void AddRecoverOptions(opts::Args& args);
void AddTakeOverOption(opts::Args& args);  ///< adds --take-over
/// Whether there is something to do about a run: it is unfinished, or nodes owe or are owed something.
[[nodiscard]] bool IsOpen(const fleet::Journal& journal, std::int64_t id);
/// Resumes these runs, as 'run resume' does; returns the exit code.
[[nodiscard]] int ResumeRuns(Context& context, fleet::Journal& journal,
                             const std::vector<std::int64_t>& ids);

/// What ends a run that was begun by another process.
using Recovery = std::function<fleet::RunReport(std::int64_t id, const fleet::RecoverOptions&)>;
/// Ends these runs, one after the other, until the user interrupts it. An error of one is told, and
/// the others go on.
[[nodiscard]] std::vector<fleet::RunReport> EndRuns(Context& context, fleet::Journal& journal,
                                                    const std::vector<std::int64_t>& ids,
                                                    const Recovery& recovery);
/// EndRuns for a verb: prints what became of the nodes, and returns the exit code; `good` says
/// whether all are as they should be.
[[nodiscard]] int TellEndedRuns(Context& context, fleet::Journal& journal,
                                const std::vector<std::int64_t>& ids, const Recovery& recovery,
                                const std::function<bool(const fleet::RunReport& report)>& good);

}  // namespace tools
