#include "faults/run_trial.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

namespace faults {

using fleet::RunState;

const std::vector<RunOperation>& RunOperations() {
  static const std::vector<RunOperation> operations = {{"run", RunWork::kMake},
                                                       {"run, a node fails", RunWork::kFail},
                                                       {"run undo", RunWork::kUndo},
                                                       {"run resume", RunWork::kResume}};
  return operations;
}

RunTrial::RunTrial(RunSite& site, RunWork work, bool resumes, const RunTimes& times, bool secret)
    : site_(site), work_(work), resumes_(resumes), times_(times), change_(site.NextChange()) {
  change_.fails = work == RunWork::kFail;
  // Nobody knows a secret after the commit, and nobody but the process that began the run before.
  change_.secret = secret && work != RunWork::kUndo && work != RunWork::kResume;
}

const char* RunTrial::WholeState() const {
  return work_ == RunWork::kFail || work_ == RunWork::kUndo ? "old" : "new";
}

std::int64_t RunTrial::Last() const {
  const auto runs = site_.OpenJournal()->Runs();
  return runs.empty() ? 0 : runs.front().id;
}

void RunTrial::Prepare() {
  before_ = Last();
  if (work_ == RunWork::kResume) KillWhileMaking();
  if (work_ != RunWork::kUndo) return;
  const fleet::RunReport report = site_.Make(*site_.OpenJournal(), change_, times_);
  if (!report.Good()) throw std::runtime_error("without a fault: " + Reasons(report));
}

/// Leaves a run that was made on one node at least.
void RunTrial::KillWhileMaking() const {
  const pid_t process = fork();
  if (process == 0) {
    fleet::RunWatch watch;
    bool makes = false;
    watch.phase = [&](fleet::RunPhase phase, std::size_t /*nodes*/) {
      makes = phase == fleet::RunPhase::kMake;
    };
    watch.ended = [&](std::size_t /*node*/, const std::string& /*failure*/) {
      if (makes) kill(getpid(), SIGKILL);
    };
    site_.Make(*site_.OpenJournal(), change_, times_, watch);
    _exit(0);
  }
  waitpid(process, nullptr, 0);
}

void RunTrial::Work(const fleet::RunWatch& watch) const {
  const auto journal = site_.OpenJournal();
  const auto recovery = site_.Recovery(times_, watch);
  switch (work_) {
    case RunWork::kMake:
    case RunWork::kFail:
      site_.Make(*journal, change_, times_, watch);
      return;
    case RunWork::kUndo:
      fleet::UndoRun(*journal, Last(), recovery);
      return;
    case RunWork::kResume:
      fleet::ResumeRun(*journal, Last(), recovery);
      return;
  }
}

std::string RunTrial::Recover(const fleet::RunWatch& watch) {
  const auto journal = site_.OpenJournal();
  const auto recovery = site_.Recovery(times_, watch);
  std::string expected = "old";
  if (const std::int64_t id = Last(); id != before_) {
    const bool is_fixed = change_.secret && journal->Find(id).head.committed != 0;
    const fleet::RunReport report = resumes_ || is_fixed ? fleet::ResumeRun(*journal, id, recovery)
                                                         : fleet::UndoRun(*journal, id, recovery);
    const std::string reasons = Reasons(report);
    if (reasons.find("it was interrupted, and whether") != std::string::npos) return "unknown";
    if (report.state != RunState::kDone && report.state != RunState::kUndone)
      return "run " + std::to_string(id) + " " + ToText(report.state) + ": " + reasons;
    expected = report.state == RunState::kDone ? "new" : "old";
  }
  std::string state = site_.State(change_);
  if (state == "new") site_.Accept(change_);
  return state == expected ? state : "the books have " + expected + ", the nodes " + state;
}

}  // namespace faults
