#include "fleet/run.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <numeric>
#include <utility>

#include "fleet/run_crew.h"
#include "fleet/run_keys.h"
#include "fleet/saved_plan.h"
#include "pnl/err.h"
#include "pnl/str.h"

namespace fleet {

bool RunReport::Good() const {
  return state == RunState::kDone &&
         std::all_of(nodes.begin(), nodes.end(), [](const NodeReport& n) {
           return n.state == NodeRunState::kDone || n.state == NodeRunState::kUnchanged;
         });
}

// --- Planning

class Run::Work {
 public:
  Work(Journal* journal, std::vector<RunTarget> targets, RunOptions options)
      : journal_(journal),
        targets_(std::move(targets)),
        options_(std::move(options)),
        policy_(options_.policy),
        crew_(options_),
        failures_(targets_.size()) {
    crew_.nodes.resize(targets_.size());
    for (std::size_t i = 0; i < targets_.size(); ++i) {
      crew_.nodes[i].target = targets_[i];
      crew_.nodes[i].booked = {.name = targets_[i].name,
                               .machine = "",
                               .login = LoginText(targets_[i].login),
                               .state = NodeRunState::kUnchanged};
    }
  }

  void Plan(const std::function<std::vector<Edit>(std::size_t)>& edits);
  void PlanAsSaved(const std::vector<std::vector<RunStep>>& steps,
                   const std::vector<std::string>& machines,
                   const std::function<Edit(std::size_t, const RunStep&)>& late);
  std::string Irreversible() const;
  std::string GuardNote(std::size_t i) const;
  RunReport Make();

  const std::vector<RunTarget>& Targets() const { return targets_; }
  const RunNode& Node(std::size_t i) const { return crew_.nodes[i].booked; }
  const std::optional<pnl_err::Error>& Failure(std::size_t i) const { return failures_[i]; }
  std::size_t FailedPlans() const {
    return static_cast<std::size_t>(
        std::count_if(failures_.begin(), failures_.end(),
                      [](const auto& failure) { return failure.has_value(); }));
  }

 private:
  using Planner = std::function<std::vector<RunStep>(std::size_t, pnl_host::Host&, Sight&)>;
  void PlanBy(const Planner& planner);
  void PayDebts(std::size_t index, pnl_host::Host& host, const Sight& sight);
  void PayDebt(const Journal::Debt& debt, pnl_host::Host& host);
  RunHead Debtor(std::int64_t run);
  void RequireNoStranger(pnl_host::Host& host, const Sight& sight);
  void RequireDifferentMachines();
  void LeaveBehind();
  void RequireReversible();
  Guarding Guards() const { return {.seconds = policy_.guard, .all = policy_.guard_all}; }
  void DropNeedlessGuard();
  RunHead Books();
  std::string MakeWaves(RunHead& run);

  Journal* const journal_;
  const std::vector<RunTarget> targets_;
  const RunOptions options_;
  RunPolicy policy_;  // options_.policy, or what it becomes
  Crew crew_;
  Failures failures_;
  std::map<std::string, std::vector<Journal::Debt>> debts_;  // by machine
  std::mutex guard_;
  std::map<std::int64_t, RunHead> debtors_;  // taken over by this process
};

void Run::Work::PlanBy(const Planner& planner) {
  if (journal_ != nullptr) {
    for (Journal::Debt& debt : journal_->Debts())
      if (debt.node.state != NodeRunState::kBehind)
        debts_[debt.node.machine].push_back(std::move(debt));
  }
  std::vector<std::size_t> all(targets_.size());
  std::iota(all.begin(), all.end(), 0);
  const auto visit = [&](CrewNode& node, pnl_host::Host& host, const Turn& /*turn*/) {
    const auto index = static_cast<std::size_t>(&node - crew_.nodes.data());
    Sight sight;
    std::vector<RunStep> steps = planner(index, host, sight);
    if (debts_.count(sight.machine) != 0) {
      PayDebts(index, host, sight);
      steps = planner(index, host, sight);
    }
    if (journal_ != nullptr) RequireNoStranger(host, sight);
    KeepToLimit(steps, options_.content_limit, false);
    node.known.emplace();
    for (const auto& [name, epoch] : sight.runs) node.known->push_back(name);
    node.booked.machine = sight.machine;
    node.guards_at_boot = sight.guards_at_boot;
    node.booked.steps = std::move(steps);
    if (!node.booked.steps.empty()) node.booked.state = NodeRunState::kWaiting;
  };
  failures_ = crew_.Visit(RunPhase::kPlan, all, false, visit);
  failures_.resize(targets_.size());
  for (auto& [id, run] : debtors_) Settle(*journal_, run);
  RequireDifferentMachines();
  LeaveBehind();
  for (std::size_t i = 0; i < targets_.size(); ++i) {
    CrewNode& node = crew_.nodes[i];
    if (!failures_[i]) continue;
    node.error = failures_[i];
    node.booked.state = NodeRunState::kUnchanged;
    node.booked.reason = ReasonOf(*failures_[i], node.target.name);
  }
}

/// Whether nobody answered; a node that refuses a login does not accept the present key, or is not itself.
static bool IsUnreached(const pnl_err::Error& error) {
  const std::string& type = error.type();
  return type == pnl_rpc::kSshConnect || type == pnl_rpc::kSshTimeout ||
         type == pnl_rpc::kSshClosed || type == kDeadlinePassed;
}

/// Nodes that are not reached are owed the new key, if there are not too many of them. At least one must
/// get it now.
void Run::Work::LeaveBehind() {
  std::vector<std::size_t> unreached;
  for (std::size_t i = 0; i < targets_.size(); ++i)
    if (failures_[i] && IsUnreached(*failures_[i])) unreached.push_back(i);
  if (!options_.key || unreached.size() > options_.allow_owed ||
      unreached.size() == targets_.size())
    return;
  for (const std::size_t i : unreached) {
    CrewNode& node = crew_.nodes[i];
    node.error = failures_[i];
    node.booked.state = NodeRunState::kBehind;
    node.booked.reason = ReasonOf(*failures_[i], node.target.name);
    node.booked.steps = {StepOfNewKey(*options_.key, *node.target.login)};
    failures_[i].reset();
  }
}

/// Makes the edit; or leaves room for it, when what it misses may come by an earlier one. Returns
/// whether it was made.
static bool MakeNow(const Edit& edit, Draft& draft) {
  if (!draft.MayBring()) {
    edit.make(draft);
    return true;
  }
  Draft before = draft;  // an edit may have edited something before it throws
  try {
    edit.make(draft);
    return true;
  } catch (const pnl_err::Error& error) {
    if (error.param(kIsMissing).empty()) throw;
  }
  draft = std::move(before);
  draft.Later(edit.words);
  return false;
}

void Run::Work::Plan(const std::function<std::vector<Edit>(std::size_t)>& edits) {
  PlanBy([&](std::size_t index, pnl_host::Host& host, Sight& sight) {
    const std::vector<Edit> own = edits(index);
    Looks looks;
    for (const Edit& edit : own) edit.look(looks);
    sight = Look(host, looks, options_.content_limit);
    Draft draft(targets_[index].name, sight);
    CrewNode& node = crew_.nodes[index];
    node.late.clear();
    for (const Edit& edit : own)
      if (!MakeNow(edit, draft)) node.late.push_back(edit);
    node.checks = draft.Checks();
    return draft.Steps();
  });
}

void Run::Work::PlanAsSaved(const std::vector<std::vector<RunStep>>& steps,
                            const std::vector<std::string>& machines,
                            const std::function<Edit(std::size_t, const RunStep&)>& late) {
  PlanBy([&](std::size_t index, pnl_host::Host& host, Sight& sight) {
    sight = Look(host, LooksOf(steps[index]), 0);
    const Draft draft(targets_[index].name, sight);
    if (sight.machine != machines[index])
      draft.Refuse("", "it is another machine than the one that the plan was made for");
    std::vector<RunStep> rest = StillToDo(draft, steps[index]);
    CrewNode& node = crew_.nodes[index];
    node.late.clear();
    for (const RunStep& step : rest) {
      if (step.form != StepForm::kLate) continue;
      if (!late)
        draft.Refuse(step.object, "the plan has no more than the words of '" + step.object + "'");
      node.late.push_back(late(index, step));
    }
    return rest;
  });
}

/// Kept copies of a run that nobody here knows belong to another panel.
void Run::Work::RequireNoStranger(pnl_host::Host& host, const Sight& sight) {
  for (const auto& [name, epoch] : sight.runs) {
    if (journal_->Has(name)) continue;
    throw pnl_err::Error(kRunBusy, name, host.Name())
        .add_param("message",
                   host.Name() + ": run " + name +
                       " of another panel has not ended there; end it on that panel, or, "
                       "if its journal is lost: brefirctl run salvage --nodes " +
                       host.Name());
  }
}

void Run::Work::RequireDifferentMachines() {
  std::map<std::string, std::string> names;
  for (std::size_t i = 0; i < targets_.size(); ++i) {
    const RunNode& node = crew_.nodes[i].booked;
    if (node.machine.empty() || failures_[i]) continue;
    const auto [other, is_new] = names.emplace(node.machine, node.name);
    if (is_new) continue;
    failures_[i] = pnl_err::Error(kRunBusy, node.machine, node.name)
                       .add_param("message", node.name + " and " + other->second +
                                                 " are the same machine (machine-id " +
                                                 node.machine + "): name one of them");
  }
}

// --- Debts of earlier runs

/// Nodes that pay at the same time must not take the run from each other.
RunHead Run::Work::Debtor(std::int64_t run) {
  const std::scoped_lock lock(guard_);
  const auto taken = debtors_.find(run);
  if (taken != debtors_.end()) return taken->second;
  return debtors_.emplace(run, journal_->TakeOver(run, false)).first->second;
}

void Run::Work::PayDebt(const Journal::Debt& debt, pnl_host::Host& host) {
  const RunHead run = Debtor(debt.run);
  const RunMark mark{.name = NameOnNodes(run),
                     .epoch = run.epoch,
                     .machine = debt.node.machine,
                     .take = true,
                     .fence = true,
                     .committed = IsCommitted(run, debt.node),
                     .command_limit = options_.command_limit};
  NodeOutcome outcome{debt.node.name, NodeRunState::kUndone};
  if (debt.node.state == NodeRunState::kCommitted) {
    EndSteps(host, mark);
    outcome.state = NodeRunState::kDone;
  } else {
    const Undone undone = UndoBooked(host, mark, run, debt.node.steps);
    outcome.reason = RemarkOf(debt.node.steps, undone);
    for (const Verdict& verdict : undone.verdicts) {
      if (verdict.result == StepResult::kDone || verdict.result == StepResult::kAlready) continue;
      outcome.state = NodeRunState::kConflict;
    }
  }
  journal_->Note(run, {outcome});
  if (outcome.state != NodeRunState::kConflict) return;
  const std::string id = std::to_string(debt.run);
  throw pnl_err::Error(kRunBusy, id, host.Name())
      .add_param("message", host.Name() + ": run " + id +
                                " could not be undone there, because somebody else has changed its "
                                "files: brefirctl run show " +
                                id + ", brefirctl run write-off " + id);
}

void Run::Work::PayDebts(std::size_t index, pnl_host::Host& host, const Sight& sight) {
  for (const Journal::Debt& debt : debts_.at(sight.machine)) {
    PayDebt(debt, host);
    if (options_.watch.paid) options_.watch.paid(index, debt.run);
  }
}

// --- Making

RunHead Run::Work::Books() {
  std::vector<RunNode> booked;
  for (const CrewNode& node : crew_.nodes) {
    booked.push_back(node.booked);
    KeepToLimit(booked.back().steps, options_.content_limit, true);
  }
  return journal_->Begin({.command = options_.command,
                          .policy = policy_.Text(),
                          .key = options_.key ? options_.key->Text() : "",
                          .keep_undo = options_.keep_undo},
                         booked);
}

/// Returns why all has to be undone; "" if it has not.
std::string Run::Work::MakeWaves(RunHead& run) {
  const std::vector<std::size_t> waiting = crew_.In({NodeRunState::kWaiting});
  std::size_t failed = FailedPlans();
  auto next = waiting.begin();
  for (const std::size_t size : policy_.Waves(waiting.size())) {
    const std::vector<std::size_t> wave(next, next + static_cast<std::ptrdiff_t>(size));
    next += static_cast<std::ptrdiff_t>(size);
    crew_.Make(*journal_, run, wave);
    std::vector<std::size_t> bad;
    for (const std::size_t i : wave)
      if (crew_.nodes[i].booked.state == NodeRunState::kFailed) bad.push_back(i);
    failed += bad.size();
    if (options_.fan.stop && options_.fan.stop->Raised()) return kInterrupted;
    if (bad.empty()) continue;
    if (!policy_.each && failed > policy_.max_failed) {
      const CrewNode& node = crew_.nodes[bad.front()];
      return node.target.name + ": " + node.booked.reason;
    }
    UndoNodes(*journal_, run, crew_, bad);
  }
  return "";
}

std::string Run::Work::Irreversible() const {
  for (const std::size_t i : crew_.In({NodeRunState::kWaiting}))
    if (const RunStep* const step = FindIrreversible(Node(i).steps))
      return fleet::Irreversible(targets_[i].name, *step).param("message");
  return "";
}

/// Where nobody has chosen, what cannot be undone on one node must not hang on the others.
void Run::Work::RequireReversible() {
  for (const std::size_t i : crew_.In({NodeRunState::kWaiting})) {
    const RunStep* const step = FindIrreversible(Node(i).steps);
    if (step == nullptr) continue;
    if (policy_.is_default) policy_.each = true;
    if (!policy_.each && !options_.irreversible) throw fleet::Irreversible(targets_[i].name, *step);
  }
}

std::string Run::Work::GuardNote(std::size_t i) const {
  const CrewNode& node = crew_.nodes[i];
  return fleet::GuardNote(node.booked.steps, Guards(), node.target.login, node.guards_at_boot);
}

/// The books name a guard only where there is one. What is planned late may want it.
void Run::Work::DropNeedlessGuard() {
  const auto wants = [&](const CrewNode& node) {
    const auto& login = node.target.login;
    const auto& steps = node.booked.steps;
    return login && std::any_of(steps.begin(), steps.end(), [&](const RunStep& step) {
             return policy_.guard_all || step.form == StepForm::kLate || CanLockOut(step, *login);
           });
  };
  if (std::none_of(crew_.nodes.begin(), crew_.nodes.end(), wants)) policy_.guard = 0;
}

RunReport Run::Work::Make() {
  RequireReversible();
  DropNeedlessGuard();
  crew_.late_rules = {.content_limit = options_.content_limit,
                      .may_stay = policy_.each || options_.irreversible};
  const std::size_t failed = FailedPlans();
  if (!policy_.each && failed > policy_.max_failed) {
    const auto first = std::find_if(failures_.begin(), failures_.end(),
                                    [](const auto& failure) { return failure.has_value(); });
    const auto index = static_cast<std::size_t>(first - failures_.begin());
    return {.state = RunState::kUndone,
            .nodes = crew_.Reports(),
            .reason = targets_[index].name + ": " + crew_.nodes[index].booked.reason};
  }
  if (crew_.In({NodeRunState::kWaiting}).empty())
    return {.state = failed == 0 ? RunState::kDone : RunState::kPartly, .nodes = crew_.Reports()};
  RunHead run = Books();
  std::string reason = MakeWaves(run);
  if (reason.empty() && options_.before_commit) {
    reason = options_.before_commit();
    if (options_.fan.stop && options_.fan.stop->Raised()) reason = kInterrupted;
  }
  RunReport report = Finish(*journal_, run, crew_, std::move(reason));
  if (report.state == RunState::kDone && failed != 0) report.state = RunState::kPartly;
  return report;
}

// --- The facade

Run::Run(Journal* journal, std::vector<RunTarget> targets, RunOptions options)
    : work_(std::make_unique<Work>(journal, std::move(targets), std::move(options))) {}
Run::~Run() = default;

void Run::Plan(const std::function<std::vector<Edit>(std::size_t)>& edits) {
  work_->Plan(edits);
}

void Run::Plan(const std::vector<Edit>& edits) {
  work_->Plan([&](std::size_t) { return edits; });
}

void Run::PlanAsSaved(const std::vector<std::vector<RunStep>>& steps,
                      const std::vector<std::string>& machines,
                      const std::function<Edit(std::size_t, const RunStep&)>& late) {
  work_->PlanAsSaved(steps, machines, late);
}

const std::vector<RunTarget>& Run::Targets() const {
  return work_->Targets();
}

const std::vector<RunStep>& Run::Steps(std::size_t target) const {
  return work_->Node(target).steps;
}

const std::string& Run::Machine(std::size_t target) const {
  return work_->Node(target).machine;
}

const std::optional<pnl_err::Error>& Run::Failure(std::size_t target) const {
  return work_->Failure(target);
}

std::size_t Run::Failed() const {
  return work_->FailedPlans();
}

bool Run::Changes() const {
  for (std::size_t i = 0; i < Targets().size(); ++i)
    if (!Failure(i) && !Steps(i).empty()) return true;
  return false;
}

std::string Run::GuardNote(std::size_t target) const {
  return work_->GuardNote(target);
}

std::string Run::Irreversible() const {
  return work_->Irreversible();
}

RunReport Run::Make() {
  return work_->Make();
}

}  // namespace fleet
