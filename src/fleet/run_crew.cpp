#include "fleet/run_crew.h"

#include <algorithm>
#include <utility>

#include "brefir/str_utils.h"
#include "pnl/err.h"

namespace fleet {
namespace {

bool Good(const Verdict& verdict) {
  return verdict.result == StepResult::kDone || verdict.result == StepResult::kAlready;
}

std::string Shown(const RunStep& step) {
  return "'" + step.object + "'";
}

/// The first step that is not done, in words.
std::string ReasonOf(const std::vector<RunStep>& steps, const std::vector<Verdict>& verdicts) {
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const Verdict& verdict = verdicts[i];
    switch (verdict.result) {
      case StepResult::kDone:
      case StepResult::kAlready:
        continue;
      case StepResult::kConflict:
        return str::Append(
            Shown(steps[i]) + " was changed by somebody else meanwhile; it is left as it is",
            verdict.reason, ": ");
      case StepResult::kFailed:
        return Shown(steps[i]) + ": " + str::Replace(verdict.reason, "\n", "; ");
      case StepResult::kWanted:
        return Shown(steps[i]) + (steps[i].secret ? ": it is secret, and nobody knows what it was"
                                                  : ": its old content was not kept");
      case StepResult::kNone:
        return Shown(steps[i]) + ": the node gave no answer about it";
    }
  }
  return "";
}

}  // namespace

std::string RemarkOf(const Undone& undone) {
  std::string paths;
  for (const std::string& path : undone.by_lines) {
    if (!paths.empty()) paths += ", ";
    paths.append("'").append(path).append("'");
  }
  if (paths.empty()) return "";
  return "somebody else has changed " + paths +
         " meanwhile: only lines of this run were taken back";
}

bool CommitsEach(const RunHead& run) {
  return RunPolicy::Read(run.policy).each;
}

std::string NameOnNodes(const RunHead& run) {
  return std::to_string(run.id) + "-" + run.token;
}

std::string ReasonOf(const pnl_err::Error& error, const std::string& node) {
  std::string reason = error.param("message");
  if (reason.empty()) reason = error.param("reason");
  if (reason.empty()) reason = error.what();
  const std::string head = node + ": ";
  if (reason.starts_with(head)) reason.erase(0, head.size());
  return str::Replace(reason, "\n", "; ");
}

// --- Sessions

/// A session of an earlier phase, or a new one. Work that must come to its end is not stopped with it.
pnl_host::Host Crew::HostOf(std::size_t index, const Turn& turn, bool to_its_end) {
  const auto& login = nodes[index].target.login;
  if (!login) return pnl_host::Host();
  {
    const std::scoped_lock lock(guard_);
    const auto kept = sessions_.find(index);
    if (kept != sessions_.end()) {
      kept->second.Outlive(turn.Deadline());
      return pnl_host::Host(kept->second);
    }
  }
  pnl_rpc::SSH session = turn.LogIn(*login);
  session.SetTimeout(timeout_);
  if (to_its_end) session.Outlive(turn.Deadline());
  const std::scoped_lock lock(guard_);
  if (sessions_.size() < max_sessions_) sessions_.emplace(index, session);
  return pnl_host::Host(session);
}

Failures Crew::Visit(RunPhase phase, const std::vector<std::size_t>& which, bool to_its_end,
                     const Visitor& visitor) {
  if (which.empty()) return {};
  if (watch_.phase) watch_.phase(phase, which.size());
  FanOptions options = fan_;
  if (to_its_end) {
    options.stop.reset();
    options.deadline = {};
  }
  Fan fan(options);
  const auto visit = [&](const Turn& turn) {
    const std::size_t index = which[turn.Index()];
    pnl_host::Host host = HostOf(index, turn, phase != RunPhase::kPlan);
    visitor(nodes[index], host);
  };
  const FanWatch watch{.begun =
                           [&](std::size_t i) {
                             if (watch_.begun) watch_.begun(which[i]);
                           },
                       .ended =
                           [&](std::size_t i, const std::optional<pnl_err::Error>& failure) {
                             const CrewNode& node = nodes[which[i]];
                             if (failure && pnl_rpc::SessionFailed(*failure)) {
                               const std::scoped_lock lock(guard_);
                               sessions_.erase(which[i]);
                             }
                             if (watch_.ended)
                               watch_.ended(which[i], failure ? ReasonOf(*failure, node.target.name)
                                                              : node.booked.reason);
                           }};
  return fan.Visit(which.size(), visit, watch);
}

RunMark Crew::MarkOf(const RunHead& run, const CrewNode& node) const {
  return {.name = NameOnNodes(run),
          .epoch = run.epoch,
          .machine = node.booked.machine,
          .wait = timeout_,  // what holds the lock longer has lost its panel
          .take = node.lost,
          .fence = node.lost,
          .known = node.known};
}

// --- Commands on all nodes

/// Calls `visitor`, which sets the state of its node; notes each outcome.
void Crew::Work(Journal& journal, const RunHead& run, RunPhase phase,
                const std::vector<std::size_t>& which, bool to_its_end, const OnFailure& on_failure,
                const Visitor& visitor) {
  OutcomeWriter writer(journal, run);
  const auto note = [&](CrewNode& node) {
    writer.Add({node.booked.name, node.booked.state, node.booked.reason});
  };
  const Failures failures =
      Visit(phase, which, to_its_end, [&](CrewNode& node, pnl_host::Host& host) {
        visitor(node, host);
        note(node);
      });
  for (std::size_t i = 0; i < failures.size(); ++i) {
    if (!failures[i]) continue;
    CrewNode& node = nodes[which[i]];
    on_failure(node, *failures[i], ReasonOf(*failures[i], node.target.name));
    note(node);
  }
  writer.Flush();
}

/// Forgets the reasons of earlier commands.
static void Clear(CrewNode& node) {
  node.error.reset();
  node.booked.reason.clear();
}

static bool IsRefusal(const pnl_err::Error& error) {
  return !error.param(kRefused).empty();
}

void Crew::MakeOn(CrewNode& node, pnl_host::Host& host, const RunHead& run) const {
  const std::vector<RunStep>& steps = node.booked.steps;
  const std::vector<Verdict> verdicts = MakeSteps(host, MarkOf(run, node), steps);
  const auto bad = std::find_if_not(verdicts.begin(), verdicts.end(), Good);
  if (bad == verdicts.end()) {
    for (const Draft::Check& check : node.checks) check(host);
    node.booked.state = CommitsEach(run) ? NodeRunState::kCommitted : NodeRunState::kMade;
    return;
  }
  node.booked.state = NodeRunState::kFailed;
  node.booked.reason = ReasonOf(steps, verdicts);
  // What was in conflict is as it was; a step that failed may be half made.
  node.begun = static_cast<std::size_t>(bad - verdicts.begin()) +
               (bad->result == StepResult::kFailed ? 1 : 0);
}

void Crew::Make(Journal& journal, const RunHead& run, const std::vector<std::size_t>& which) {
  std::vector<NodeOutcome> begun;
  begun.reserve(which.size());
  for (const std::size_t i : which) {
    Clear(nodes[i]);
    begun.push_back({nodes[i].booked.name, NodeRunState::kMaking});
  }
  journal.Note(run, begun);
  const auto fail = [](CrewNode& node, const pnl_err::Error& error, const std::string& reason) {
    node.error = error;
    node.booked.reason = reason;
    node.booked.state = NodeRunState::kFailed;
    node.untouched = IsRefusal(error) && !node.lost;
    node.lost = node.lost || !IsRefusal(error);
  };
  Work(journal, run, RunPhase::kMake, which, false, fail,
       [&](CrewNode& node, pnl_host::Host& host) { MakeOn(node, host, run); });
}

/// A secret step that the host does not know was not made, unless the host has forgotten it after the
/// commit.
Undone UndoBooked(pnl_host::Host& host, const RunMark& mark, const RunHead& run,
                  const std::vector<RunStep>& steps) {
  Undone undone = UndoFromBooks(host, mark, steps);
  if (run.committed != 0) return undone;
  bool unknown = false;
  for (std::size_t i = 0; i < steps.size(); ++i) {
    if (!steps[i].secret || undone.verdicts[i].result != StepResult::kWanted) continue;
    undone.verdicts[i] = {StepResult::kAlready};
    unknown = true;
  }
  if (unknown && std::all_of(undone.verdicts.begin(), undone.verdicts.end(), Good))
    EndSteps(host, mark);
  return undone;
}

void Crew::UndoOn(CrewNode& node, pnl_host::Host& host, const RunHead& run) const {
  std::vector<RunStep> steps = node.booked.steps;
  if (node.begun) steps.resize(*node.begun);
  const Undone undone = UndoBooked(host, MarkOf(run, node), run, steps);
  const bool all = std::all_of(undone.verdicts.begin(), undone.verdicts.end(), Good);
  node.booked.state = all ? NodeRunState::kUndone : NodeRunState::kConflict;
  if (!all) node.error.reset();
  node.booked.reason = all ? str::Append(node.booked.reason, RemarkOf(undone), "; ")
                           : ReasonOf(steps, undone.verdicts);
}

/// The reason of a failure stays: it is still what people want to know.
void Crew::Undo(Journal& journal, const RunHead& run, const std::vector<std::size_t>& which) {
  std::vector<std::size_t> begun;
  std::vector<NodeOutcome> untouched;
  for (const std::size_t i : which) {
    CrewNode& node = nodes[i];
    if (node.booked.state != NodeRunState::kFailed) Clear(node);
    if (node.untouched) {
      node.booked.state = NodeRunState::kUndone;
      untouched.push_back({node.booked.name, node.booked.state, node.booked.reason});
    } else {
      begun.push_back(i);
    }
  }
  if (!untouched.empty()) journal.Note(run, untouched);
  const auto owe = [](CrewNode& node, const pnl_err::Error& error, const std::string& reason) {
    if (node.booked.reason.empty()) node.error = error;
    node.booked.reason = str::Append(node.booked.reason, reason, "; it could not be undone: ");
    node.booked.state = NodeRunState::kOwed;
    node.lost = node.lost || !IsRefusal(error);
  };
  Work(journal, run, RunPhase::kUndo, begun, true, owe,
       [&](CrewNode& node, pnl_host::Host& host) { UndoOn(node, host, run); });
}

void Crew::CleanUp(Journal& journal, const RunHead& run, const std::vector<std::size_t>& which,
                   bool keep) {
  for (const std::size_t i : which) Clear(nodes[i]);
  if (keep) {
    std::vector<NodeOutcome> outcomes;
    for (const std::size_t i : which) {
      nodes[i].booked.state = NodeRunState::kDone;
      outcomes.push_back({nodes[i].booked.name, NodeRunState::kDone});
    }
    journal.Note(run, outcomes);
    return;
  }
  const auto owe = [](CrewNode& node, const pnl_err::Error& error, const std::string& reason) {
    node.error = error;
    node.booked.reason = reason;
    node.booked.state = NodeRunState::kCommitted;
    node.lost = node.lost || !IsRefusal(error);
  };
  Work(journal, run, RunPhase::kCleanUp, which, true, owe,
       [&](CrewNode& node, pnl_host::Host& host) {
         EndSteps(host, MarkOf(run, node));
         node.booked.state = NodeRunState::kDone;
       });
}

// --- What became of them

std::vector<std::size_t> Crew::In(std::initializer_list<NodeRunState> states) const {
  std::vector<std::size_t> which;
  for (std::size_t i = 0; i < nodes.size(); ++i)
    if (std::find(states.begin(), states.end(), nodes[i].booked.state) != states.end())
      which.push_back(i);
  return which;
}

std::vector<NodeReport> Crew::Reports() const {
  std::vector<NodeReport> reports;
  for (const CrewNode& node : nodes) {
    const NodeRunState state = node.booked.state;
    reports.push_back(
        {.name = node.target.name,
         .state = state,
         .reason = node.booked.reason,
         .error = node.error,
         .changed = state == NodeRunState::kDone || state == NodeRunState::kCommitted});
  }
  return reports;
}

}  // namespace fleet
