#include "fleet/run_crew.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "brefir/str_utils.h"
#include "fleet/package_answer.h"
#include "fleet/run_keys.h"
#include "fleet/sshd_steps.h"
#include "pnl/deadline.h"
#include "pnl/err.h"
#include "pnl/proc.h"

namespace fleet {
namespace {

bool Good(const Verdict& verdict) {
  return verdict.result == StepResult::kDone || verdict.result == StepResult::kAlready;
}

std::string Shown(const RunStep& step) {
  return (step.form == StepForm::kPackages ? "packages '" : "'") + step.object + "'";
}

/// The last lines, for a reason of one line.
std::string LastLines(const std::string& output) {
  constexpr std::size_t kLines = 3;
  std::string text = str::Trim(output);
  std::size_t begin = std::string::npos;
  for (std::size_t i = 0; i < kLines; ++i) {
    begin = text.rfind('\n', begin - 1);
    if (begin == std::string::npos) return text;
  }
  return text.substr(begin + 1);
}

/// What a command said about its failure.
std::string SaidOf(const RunStep& step, const std::string& output) {
  constexpr std::size_t kMost = 400;  // bytes
  const std::string said = step.form == StepForm::kPackages ? FailureOf(output) : "";
  if (said.empty()) return LastLines(output);
  return said.size() <= kMost ? said : said.substr(0, kMost) + "...";
}

/// What failed while it was made or undone.
std::string WhyOf(const RunStep& step, const Verdict& verdict, bool undoing) {
  const std::string why =
      str::Replace(str::Append(verdict.reason, SaidOf(step, verdict.output), ": "), "\n", "; ");
  const bool is_command = step.form == StepForm::kCommand || step.form == StepForm::kService ||
                          step.form == StepForm::kPackages;
  if (!is_command) return Shown(step) + ": " + why;
  if (undoing && !step.no_undo.empty()) return Shown(step) + " cannot be undone: " + step.no_undo;
  return (undoing ? "the undo of " : "") + Shown(step) + " failed: " + why;
}

/// The first step that is not done, in words.
std::string ReasonOf(const std::vector<RunStep>& steps, const std::vector<Verdict>& verdicts,
                     bool undoing) {
  for (std::size_t i = 0; i < verdicts.size(); ++i) {
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
        return WhyOf(steps[i], verdict, undoing);
      case StepResult::kWanted:
        return Shown(steps[i]) + (steps[i].secret ? ": it is secret, and nobody knows what it was"
                                                  : ": its old content was not kept");
      case StepResult::kNone:
        return Shown(steps[i]) + ": the node gave no answer about it";
    }
  }
  return "";
}

/// What the guard did before the undoing, in words.
std::string GuardRemark(GuardState guard) {
  switch (guard) {
    case GuardState::kRestored:
      return "its guard had gone off, and had put it back";
    case GuardState::kFired:
      return "its guard had gone off";
    case GuardState::kNone:
    case GuardState::kArmed:
    case GuardState::kLost:
      break;
  }
  return "";
}

}  // namespace

std::string RemarkOf(const std::vector<RunStep>& steps, const Undone& undone) {
  std::string remark = GuardRemark(undone.guard);
  for (std::size_t i = 0; i < steps.size(); ++i)
    if (const Verdict& verdict = undone.verdicts[i];
        verdict.result == StepResult::kDone && !verdict.reason.empty())
      remark = str::Append(remark, Shown(steps[i]) + " " + verdict.reason, "; ");
  std::string paths;
  for (const std::string& path : undone.by_lines) {
    if (!paths.empty()) paths += ", ";
    paths.append("'").append(path).append("'");
  }
  if (paths.empty()) return remark;
  return str::Append(
      remark,
      "somebody else has changed " + paths + " meanwhile: only lines of this run were taken back",
      "; ");
}

void KeepToLimit(std::vector<RunStep>& steps, std::uint64_t limit, bool all) {
  for (RunStep& step : steps) {
    for (PathState* state : {&step.before, all ? &step.after : &step.before})
      if (state->content && state->content->size() > limit) state->content.reset();
  }
}

const RunStep* FindIrreversible(const std::vector<RunStep>& steps) {
  const auto found = std::find_if(steps.begin(), steps.end(),
                                  [](const RunStep& step) { return !step.no_undo.empty(); });
  return found == steps.end() ? nullptr : &*found;
}

pnl_err::Error Irreversible(const std::string& node, const RunStep& step) {
  const std::string advice =
      step.form == StepForm::kCommand ? "give it --undo CMD, or choose" : "choose";
  return pnl_err::Error(kIrreversible, node, step.object)
      .add_param("message", node + ": " + Shown(step) + " cannot be undone: " + step.no_undo +
                                "; " + advice + " --policy each or --irreversible");
}

bool CommitsEach(const RunHead& run) {
  return RunPolicy::Read(run.policy).each;
}

Guarding GuardingOf(const RunHead& run) {
  const RunPolicy policy = RunPolicy::Read(run.policy);
  return {.seconds = policy.guard, .all = policy.guard_all};
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
    visitor(nodes[index], host, turn);
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

bool IsCommitted(const RunHead& run, const RunNode& node) {
  const NodeRunState state = node.state;
  if (state == NodeRunState::kCommitted || state == NodeRunState::kDone) return true;
  return run.committed != 0 && state != NodeRunState::kMaking && state != NodeRunState::kFailed &&
         std::none_of(node.steps.begin(), node.steps.end(),
                      [](const RunStep& step) { return step.uncommitted; });
}

RunMark Crew::MarkOf(const RunHead& run, const CrewNode& node) const {
  return {.name = NameOnNodes(run),
          .epoch = run.epoch,
          .machine = node.booked.machine,
          .wait = timeout_,  // what holds the lock longer has lost its panel
          .take = node.lost,
          .fence = node.lost,
          .committed = IsCommitted(run, node.booked),
          .made = node.booked.state == NodeRunState::kMade,
          .command_limit = command_limit_,
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
      Visit(phase, which, to_its_end, [&](CrewNode& node, pnl_host::Host& host, const Turn& turn) {
        visitor(node, host, turn);
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

/// Fails the node with an error after which no command of it can be at work there.
static void Fail(CrewNode& node, const pnl_err::Error& error, std::string reason) {
  node.error = error;
  node.booked.state = NodeRunState::kFailed;
  node.booked.reason = std::move(reason);
}

void Crew::Book(Journal& journal, const RunHead& run, const CrewNode& node,
                std::vector<RunStep> steps) const {
  KeepToLimit(steps, late_rules.content_limit, true);
  journal.SetSteps(run, node.booked.name, steps);
}

/// Makes a group of steps; `done` were made before. Returns whether all is good.
bool Crew::MakeUpTo(Journal& journal, CrewNode& node, pnl_host::Host& host, const RunHead& run,
                    std::size_t done, const StepGroup& group) const {
  std::vector<RunStep>& steps = node.booked.steps;
  RunMark mark = MarkOf(run, node);
  if (group.guarded) mark.guard = GuardingOf(run).seconds;
  std::vector<Verdict> verdicts = MakeSteps(
      host, mark, {steps.begin(), steps.begin() + static_cast<std::ptrdiff_t>(group.end)}, done);
  const auto bad = std::find_if_not(verdicts.begin(), verdicts.end(), Good);
  // What was in conflict is as it was; a step that failed may be half made.
  // A process that is gone may have made more.
  const bool half = bad != verdicts.end() && bad->result == StepResult::kFailed;
  if (!node.lost) node.begun = static_cast<std::size_t>(bad - verdicts.begin()) + (half ? 1 : 0);
  bool moved = false;
  for (std::size_t i = done; i < verdicts.size(); ++i) {
    node.output = str::Append(node.output, verdicts[i].output, "\n");
    if (!verdicts[i].packages) continue;
    moved = moved || steps[i].packages != *verdicts[i].packages;
    steps[i].packages = *std::move(verdicts[i].packages);
  }
  if (bad != verdicts.end()) {
    node.booked.state = NodeRunState::kFailed;
    node.booked.reason = ReasonOf(steps, verdicts, false);
  }
  if (moved) Book(journal, run, node, steps);
  return bad == verdicts.end();
}

/// Plans the edit whose place is at `at`. The books have its steps before they are made.
void Crew::PlanLate(Journal& journal, CrewNode& node, pnl_host::Host& host, const RunHead& run,
                    std::size_t at) const {
  const Edit& edit = node.late.front();
  Looks looks;
  edit.look(looks);
  Draft draft(node.target.name, Look(host, looks, late_rules.content_limit));
  edit.make(draft);
  std::vector<RunStep> planned = draft.Steps();
  const RunStep* const stays = FindIrreversible(planned);
  if (stays != nullptr && !late_rules.may_stay) throw Irreversible(node.target.name, *stays);
  KeepToLimit(planned, late_rules.content_limit, false);
  std::vector<RunStep> steps = node.booked.steps;
  const auto place = steps.erase(steps.begin() + static_cast<std::ptrdiff_t>(at));
  steps.insert(place, planned.begin(), planned.end());
  Book(journal, run, node, steps);
  node.booked.steps = std::move(steps);
  node.checks.insert(node.checks.end(), draft.Checks().begin(), draft.Checks().end());
  node.late.pop_front();
}

/// A session of its own shows that the node still lets people in; the open one does not. A server that
/// has too many logins at once is asked until `patience` is over, one that gives no answer for some
/// seconds: after a reload the port may be closed for a moment.
static pnl_rpc::SSH LogInAnew(pnl_rpc::SshOptions login, const Turn& turn,
                              std::chrono::seconds patience) {
  constexpr int kPause = 250;  // milliseconds
  constexpr std::chrono::seconds kReload(5);
  const pnl_time::Deadline end{patience};
  const pnl_time::Deadline reloaded{std::min(patience, kReload)};
  login.connect_timeout = std::min(login.connect_timeout, static_cast<int>(patience.count()));
  for (;;) {
    try {
      return turn.LogIn(login);
    } catch (const pnl_err::Error& error) {
      const bool busy = !error.param(pnl_rpc::kHungUp).empty();
      const bool again =
          error.type() == pnl_rpc::kSshConnect || error.type() == pnl_rpc::kSshClosed;
      if (!again || (busy ? end : reloaded).Passed()) throw;
    }
    pnl_proc::Sleep(kPause);
  }
}

/// How long a fresh login is tried again, of the guard's seconds.
static std::chrono::seconds Patience(int guard) {
  constexpr int kLeft = 5;  // for the claim itself
  return std::chrono::seconds(std::max(guard - kLeft, 1));
}

/// Shows by a fresh login that the node can still be reached, and claims the token of the guard, if there
/// is one. Returns whether both worked.
static bool ProveLogin(CrewNode& node, const pnl_rpc::SshOptions& login, const Turn& turn,
                       const RunMark& mark, int guard) {
  constexpr std::chrono::seconds kUnguarded(5);
  try {
    pnl_rpc::SSH session = LogInAnew(login, turn, guard != 0 ? Patience(guard) : kUnguarded);
    if (guard == 0) return true;
    pnl_host::Host host(session);
    ClaimGuard(host, mark);
    return true;
  } catch (const pnl_err::Error& error) {
    // The node was reached before: this is no trouble with the login that people know.
    const std::string reason =
        (pnl_rpc::SessionFailed(error) ? "a fresh login failed after the change: " : "") +
        ReasonOf(error, node.target.name);
    Fail(node,
         pnl_err::Error(kRunFailed, node.target.name, mark.name)
             .add_param("message", node.target.name + ": " + reason),
         reason);
    return false;
  }
}

/// Makes all steps, and plans those whose turn comes. Returns whether all is good.
bool Crew::MakeAll(Journal& journal, CrewNode& node, pnl_host::Host& host, const Turn& turn,
                   const RunHead& run) const {
  const std::vector<RunStep>& steps = node.booked.steps;
  const Guarding guarding = GuardingOf(run);
  std::size_t done = 0;
  do {
    const auto late =
        std::find_if(steps.begin() + static_cast<std::ptrdiff_t>(done), steps.end(),
                     [](const RunStep& step) { return step.form == StepForm::kLate; });
    const StepGroup group = GroupFrom(steps, done, static_cast<std::size_t>(late - steps.begin()),
                                      guarding, node.target.login);
    // Before a first step that is late, the node must not have anything of a run without steps.
    if (group.end > done && !MakeUpTo(journal, node, host, run, done, group)) return false;
    if (group.guarded && !ProveLogin(node, LoginOfProof(*this, node, run), turn, MarkOf(run, node),
                                     guarding.seconds))
      return false;
    done = group.end;
    try {
      while (done < steps.size() && steps[done].form == StepForm::kLate)
        PlanLate(journal, node, host, run, done);
    } catch (const pnl_err::Error& error) {
      if (pnl_rpc::SessionFailed(error)) throw;
      Fail(node, error, ReasonOf(error, node.target.name));
      return false;
    }
  } while (done < steps.size());
  return true;
}

void Crew::MakeOn(Journal& journal, CrewNode& node, pnl_host::Host& host, const Turn& turn,
                  const RunHead& run) const {
  if (!MakeAll(journal, node, host, turn, run)) return;
  for (const Draft::Check& check : node.checks) check(host);
  const bool risky = HasSshdStep(node.booked.steps) || !run.key.empty();
  const bool unproved = risky && (GuardingOf(run).seconds == 0 || node.booked.steps.empty());
  if (node.target.login && unproved &&
      !ProveLogin(node, LoginOfProof(*this, node, run), turn, MarkOf(run, node), 0))
    return;
  node.booked.state = CommitsEach(run) ? NodeRunState::kCommitted : NodeRunState::kMade;
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
    Fail(node, error, reason);
    node.untouched = IsRefusal(error) && !node.lost && !node.begun;
    if (IsRefusal(error)) return;
    node.lost = true;
    node.begun.reset();
  };
  Work(journal, run, RunPhase::kMake, which, false, fail,
       [&](CrewNode& node, pnl_host::Host& host, const Turn& turn) {
         MakeOn(journal, node, host, turn, run);
       });
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
  Undone undone = UndoBooked(host, MarkOf(run, node), run, steps);
  // The reason of a failure that the guard made names it.
  if (node.booked.reason.find("guard") != std::string::npos) undone.guard = GuardState::kNone;
  const bool all = std::all_of(undone.verdicts.begin(), undone.verdicts.end(), Good);
  node.booked.state = all ? NodeRunState::kUndone : NodeRunState::kConflict;
  if (!all) node.error.reset();
  node.booked.reason =
      str::Append(node.booked.reason,
                  all ? RemarkOf(steps, undone) : ReasonOf(steps, undone.verdicts, true), "; ");
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
  Work(
      journal, run, RunPhase::kUndo, begun, true, owe,
      [&](CrewNode& node, pnl_host::Host& host, const Turn& /*turn*/) { UndoOn(node, host, run); });
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
       [&](CrewNode& node, pnl_host::Host& host, const Turn& /*turn*/) {
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
    reports.push_back({.name = node.target.name,
                       .state = state,
                       .reason = node.booked.reason,
                       .error = node.error,
                       .changed = state == NodeRunState::kDone || state == NodeRunState::kCommitted,
                       .output = node.output});
  }
  return reports;
}

}  // namespace fleet
