// The end of a run: commit, undo, and what a later process does about a run that was not ended.

#include <algorithm>
#include <ctime>
#include <utility>

#include "fleet/run_crew.h"
#include "fleet/run_keys.h"
#include "pnl/err.h"

namespace fleet {
namespace {

using State = NodeRunState;

void Move(Journal& journal, RunHead& run, RunState to) {
  if (!journal.Move(run, run.state, to))
    throw pnl_err::Error(kTakenOver, std::to_string(run.id))
        .add_param("message", "run " + std::to_string(run.id) +
                                  " was ended by another process: brefirctl run show " +
                                  std::to_string(run.id));
  run.state = to;
  if (to == RunState::kCommitted) run.committed = std::time(nullptr);
}

/// Nodes whose turn did not come are as before.
void Release(Journal& journal, const RunHead& run, Crew& crew, const std::string& reason) {
  std::vector<NodeOutcome> outcomes;
  const bool all_back = run.state == RunState::kUndoing;
  for (const std::size_t i : crew.In({State::kWaiting, State::kBehind})) {
    RunNode& node = crew.nodes[i].booked;
    if (node.state == State::kBehind && !(all_back && IsUnplanned(node))) continue;
    node.state = State::kUndone;
    node.reason = reason;
    outcomes.push_back({node.name, node.state, node.reason});
  }
  if (!outcomes.empty()) journal.Note(run, outcomes);
}

RunReport Report(const RunHead& run, const Crew& crew, std::string reason) {
  return {.id = run.id, .state = run.state, .nodes = crew.Reports(), .reason = std::move(reason)};
}

RunReport UndoAll(Journal& journal, RunHead& run, Crew& crew, std::string reason) {
  if (run.state != RunState::kUndoing) Move(journal, run, RunState::kUndoing);
  if (AddsKey(run) && run.committed != 0) PutBack(KeyChange::Read(run.key), run.id);
  Release(journal, run, crew, "");
  UndoNodes(journal, run, crew,
            crew.In({State::kMaking, State::kMade, State::kCommitted, State::kDone, State::kFailed,
                     State::kConflict, State::kOwed, State::kBehind}));
  if (AddsKey(run)) PutBack(KeyChange::Read(run.key), run.id);  // removes the new pair
  const bool all = crew.In({State::kConflict, State::kOwed}).empty();
  Move(journal, run, all ? RunState::kUndone : RunState::kPartly);
  return Report(run, crew, std::move(reason));
}

RunReport Commit(Journal& journal, RunHead& run, Crew& crew, std::string reason) {
  if (run.state == RunState::kMaking) Move(journal, run, RunState::kCommitted);
  if (AddsKey(run)) PutInPlace(KeyChange::Read(run.key), run.id);
  crew.CleanUp(journal, run, crew.In({State::kMade, State::kCommitted}), run.keep_undo);
  const bool all =
      crew.In({State::kUndone, State::kConflict, State::kOwed, State::kBehind, State::kWrittenOff})
          .empty();
  Move(journal, run, all ? RunState::kDone : RunState::kPartly);
  return Report(run, crew, std::move(reason));
}

}  // namespace

/// When the others are committed, nobody could tell any more that these were not: a command that never
/// came there would count as run.
static void NoteUncommitted(Journal& journal, const RunHead& run, Crew& crew,
                            const std::vector<std::size_t>& which) {
  for (const std::size_t i : which) {
    bool is_new = false;
    for (RunStep& step : crew.nodes[i].booked.steps) {
      is_new = is_new || (RunsCommand(step) && !step.uncommitted);
      step.uncommitted = RunsCommand(step);
    }
    if (is_new) crew.Book(journal, run, crew.nodes[i], crew.nodes[i].booked.steps);
  }
}

void UndoNodes(Journal& journal, RunHead& run, Crew& crew, const std::vector<std::size_t>& which) {
  if (which.empty()) return;
  if (run.state == RunState::kMaking) NoteUncommitted(journal, run, crew, which);
  const bool lost =
      std::any_of(which.begin(), which.end(), [&](std::size_t i) { return crew.nodes[i].lost; });
  if (lost) run.epoch = journal.RaiseEpoch(run);
  crew.Undo(journal, run, which);
}

RunReport Finish(Journal& journal, RunHead& run, Crew& crew, std::string reason) {
  if (!reason.empty() && !CommitsEach(run)) return UndoAll(journal, run, crew, std::move(reason));
  Release(journal, run, crew, reason);
  UndoNodes(journal, run, crew, crew.In({State::kMaking, State::kFailed}));
  return Commit(journal, run, crew, std::move(reason));
}

void Settle(Journal& journal, RunHead& run) {
  if (run.state != RunState::kPartly) return;
  const std::vector<RunNode> nodes = journal.Find(run.id).nodes;
  // One that was committed may have been undone since.
  for (const auto& [state, end] :
       {std::pair(State::kDone, RunState::kDone), std::pair(State::kUndone, RunState::kUndone)}) {
    const auto is_there = [state = state](const RunNode& node) {
      return node.state == state || node.state == State::kUnchanged;
    };
    if (std::all_of(nodes.begin(), nodes.end(), is_there)) return Move(journal, run, end);
  }
}

// --- Another process

namespace {

void Enlist(Crew& crew, const BookedRun& booked, const RecoverOptions& options) {
  for (const RunNode& node : booked.nodes) {
    CrewNode member{.target = {.name = node.name, .login = ReadLogin(node.login)}, .booked = node};
    if (member.target.login && options.login)
      member.target.login = options.login(node, *member.target.login);
    member.lost = true;  // whoever was killed may have left a command there
    crew.nodes.push_back(std::move(member));
  }
}

/// Whether the books have all that is needed to make the step.
bool CanBeMade(const RunStep& step) {
  if (step.secret || step.form == StepForm::kLate) return false;
  if (step.form != StepForm::kPath || step.after.kind != PathKind::kFile) return true;
  return step.after.content != nullptr || step.before.SameContent(step.after);
}

/// Why the steps cannot be made from the books; "" if they can.
std::string WhyNot(const std::vector<RunStep>& steps) {
  const auto step = std::find_if_not(steps.begin(), steps.end(), CanBeMade);
  if (step == steps.end()) return "";
  if (step->form == StepForm::kLate)
    return "'" + step->object +
           "' was to be planned when its turn came, and what began the run is gone";
  return "the new content of '" + step->object + "' is not in the journal";
}

/// Makes what was not made. Returns why all has to be undone, or "".
std::string MakeRest(Journal& journal, RunHead& run, Crew& crew) {
  for (const CrewNode& node : crew.nodes)
    if (node.booked.state == State::kFailed && !CommitsEach(run))
      return node.target.name + ": " + node.booked.reason;
  std::vector<std::size_t> rest;
  for (const std::size_t i : crew.In({State::kWaiting, State::kMaking})) {
    CrewNode& node = crew.nodes[i];
    const std::string why = WhyNot(node.booked.steps);
    if (!why.empty() && !CommitsEach(run)) return node.target.name + ": " + why;
    if (why.empty()) {
      rest.push_back(i);
      continue;
    }
    node.untouched = node.booked.state == State::kWaiting;
    node.booked.state = State::kFailed;
    node.booked.reason = why;
  }
  if (rest.empty()) return "";
  crew.Make(journal, run, rest);
  for (const std::size_t i : rest) {
    const RunNode& node = crew.nodes[i].booked;
    if (node.state == State::kFailed && !CommitsEach(run)) return node.name + ": " + node.reason;
  }
  return "";
}

/// What an ended run still owes to nodes. What could not be undone for another reason may now: a full
/// disk has space again, somebody has put a file right.
void PayAll(Journal& journal, RunHead& run, Crew& crew) {
  UndoNodes(journal, run, crew, crew.In({State::kOwed, State::kConflict}));
  crew.CleanUp(journal, run, crew.In({State::kCommitted}), false);
}

BookedRun Taken(Journal& journal, std::int64_t id, const RecoverOptions& options) {
  const RunHead head = journal.TakeOver(id, options.take_over);
  BookedRun booked = journal.Find(id);
  booked.head = head;
  return booked;
}

}  // namespace

RunReport ResumeRun(Journal& journal, std::int64_t id, const RecoverOptions& options) {
  const pnl_file::Lock lock = LockKeyOf(journal.Find(id).head);
  BookedRun booked = Taken(journal, id, options);
  RunHead& run = booked.head;
  Crew crew(options);
  Enlist(crew, booked, options);
  RunReport report;
  switch (run.state) {
    case RunState::kMaking:
      report = Finish(journal, run, crew, MakeRest(journal, run, crew));
      break;
    case RunState::kCommitted:
      report = Commit(journal, run, crew, "");
      break;
    case RunState::kUndoing:
      return UndoAll(journal, run, crew, "");
    case RunState::kDone:
    case RunState::kUndone:
    case RunState::kPartly:
      PayAll(journal, run, crew);
      break;
  }
  if (run.committed != 0) crew.CatchUp(journal, run, crew.In({State::kBehind}));
  Settle(journal, run);
  return Report(run, crew, report.reason);
}

RunReport UndoRun(Journal& journal, std::int64_t id, const RecoverOptions& options) {
  const pnl_file::Lock lock = LockKeyOf(journal.Find(id).head);
  BookedRun booked = Taken(journal, id, options);
  RunHead& run = booked.head;
  const bool had_key = AddsKey(run) && run.committed != 0;
  if (had_key && run.state != RunState::kUndoing && run.state != RunState::kUndone) {
    Crew crew(options);
    Enlist(crew, booked, options);
    RequireOldKey(journal, run, crew);
  }
  if (run.state == RunState::kUndone) {
    Crew crew(options);
    Enlist(crew, booked, options);
    PayAll(journal, run, crew);
    return Report(run, crew, "");
  }
  if (run.state != RunState::kUndoing) {
    Move(journal, run, RunState::kUndoing);
    booked.nodes = journal.Find(id).nodes;  // ended ones are taken again
  }
  Crew crew(options);
  Enlist(crew, booked, options);
  return UndoAll(journal, run, crew, "");
}

RunReport DropUndo(Journal& journal, std::int64_t id, const RecoverOptions& options) {
  if (!IsEnd(journal.Find(id).head.state))
    throw pnl_err::Error(kRunBusy, std::to_string(id))
        .add_param("message", "run " + std::to_string(id) +
                                  " is unfinished: brefirctl run resume or run undo ends it");
  const BookedRun booked = Taken(journal, id, options);
  Crew crew(options);
  Enlist(crew, booked, options);
  crew.CleanUp(journal, booked.head, crew.In({State::kDone, State::kCommitted}), false);
  if (crew.In({State::kCommitted}).empty()) journal.DropUndo(booked.head);
  return Report(booked.head, crew, "");
}

std::map<std::string, std::int64_t> NamesOnNodes(const Journal& journal) {
  std::map<std::string, std::int64_t> names;
  for (const RunHead& run : journal.Runs()) names[NameOnNodes(run)] = run.id;
  return names;
}

}  // namespace fleet
