#include "fleet/run_keys.h"

#include <algorithm>

#include "brefir/sshkey_generate.h"
#include "fleet/authorized_keys.h"
#include "fleet/rotation.h"
#include "pnl/err.h"

namespace fleet {
namespace {

/// The error about a run that cannot be undone.
pnl_err::Error CannotUndo(const RunHead& run, const std::string& why) {
  const std::string id = std::to_string(run.id);
  return pnl_err::Error(kRunBusy, id)
      .add_param("message", "run " + id + " cannot be undone: " + why + "; nothing was changed");
}

}  // namespace

bool AddsKey(const RunHead& run) {
  return !run.key.empty() && !KeyChange::Read(run.key).added.empty();
}

pnl_file::Lock LockKeyOf(const RunHead& run) {
  if (run.key.empty()) return {};
  const KeyChange key = KeyChange::Read(run.key);
  if (key.machine == OwnMachine()) return LockKey(key.private_key);
  throw pnl_err::Error(kRunBusy, std::to_string(run.id), run.host)
      .add_param("message", "run " + std::to_string(run.id) + " changes the key of panel host " +
                                run.host + ": end it there");
}

pnl_rpc::SshOptions LoginOfProof(const Crew& crew, const CrewNode& node, const RunHead& run) {
  pnl_rpc::SshOptions login = *node.target.login;
  if (!AddsKey(run)) return login;
  const KeyChange key = KeyChange::Read(run.key);
  const auto is_node = [&](const pnl_rpc::SshJump& jump) {
    return std::any_of(crew.nodes.begin(), crew.nodes.end(), [&](const CrewNode& other) {
      const auto& way = other.target.login;
      return way && way->host == jump.host && way->port == jump.port;
    });
  };
  login.key_file = FileOfNewKey(key);
  for (pnl_rpc::SshJump& jump : login.jumps)
    if (pnl_file::RealPath(jump.key_file) == key.private_key && !is_node(jump))
      jump.key_file = login.key_file;
  return login;
}

RunStep StepOfNewKey(const KeyChange& key, const pnl_rpc::SshOptions& login) {
  return {.form = StepForm::kLate, .object = NewKeyEdit(login.user, key).words};
}

bool IsUnplanned(const RunNode& node) {
  return std::all_of(node.steps.begin(), node.steps.end(),
                     [](const RunStep& step) { return step.form == StepForm::kLate; });
}

/// The newest run that has removed the key from nodes; 0 if there is none.
static std::int64_t RetiredBy(const Journal& journal, const std::string& key) {
  std::int64_t id = 0;
  for (const RunHead& run : journal.KeyRuns())
    if (KeyChange::Read(run.key).retired == key && run.state != RunState::kUndone) id = run.id;
  return id;
}

static pnl_err::Error NotAccepted(const RunHead& run, const std::string& node,
                                  const std::string& kept, const pnl_err::Error& error) {
  return CannotUndo(
      run, node + " does not accept the key before it, '" + kept + "': " + ReasonOf(error, node));
}

void RequireOldKey(const Journal& journal, const RunHead& run, Crew& crew) {
  const KeyChange key = KeyChange::Read(run.key);
  if (FileOfNewKey(key) != key.private_key) return;  // the old pair is still in place
  const std::string kept = KeptKey(key, run.id);
  // Of a process that was killed in PutInPlace, the public half may be there alone.
  const auto is_new = [&](const std::string& path) {
    return KeyOf(pnl_file::Read(path)) == KeyOf(key.added);
  };
  if (!is_new(key.public_key) && !is_new(NextKey(key) + ssh_gen::kPublic))
    throw CannotUndo(run, "'" + key.private_key +
                              "' is no longer its key; undo the rotation that replaced it first");
  if (!pnl_file::Exists(kept))
    throw CannotUndo(run, "the key before it, '" + kept + "', is not here any more");
  const std::int64_t retired = RetiredBy(journal, KeyOf(pnl_file::Read(kept + ssh_gen::kPublic)));
  if (retired != 0)
    throw CannotUndo(run, "run " + std::to_string(retired) +
                              " has retired the key before it; undo that run first");
  const std::vector<std::size_t> which =
      crew.In({NodeRunState::kDone, NodeRunState::kCommitted, NodeRunState::kMade});
  for (const std::size_t i : which) crew.nodes[i].target.login->key_file = kept;
  const Failures failures =
      crew.Visit(RunPhase::kPlan, which, false, [](CrewNode&, pnl_host::Host&, const Turn&) {});
  for (std::size_t i = 0; i < failures.size(); ++i) {
    // A node that cannot be reached will owe its undoing.
    if (!failures[i] || failures[i]->type() != pnl_rpc::kSshAuth) continue;
    throw NotAccepted(run, crew.nodes[which[i]].target.name, kept, *failures[i]);
  }
}

// --- Nodes that are behind

/// A payment that was killed may have left something: the host knows what.
void Crew::CatchUpOn(Journal& journal, CrewNode& node, pnl_host::Host& host, const Turn& turn,
                     const RunHead& run) const {
  const KeyChange key = KeyChange::Read(run.key);
  const RunStep step = StepOfNewKey(key, *node.target.login);
  if (Look(host, {}).runs.contains(NameOnNodes(run))) {
    const std::vector<Salvaged> left = SalvageRun(host, MarkOf(run, node));
    const auto bad = std::find_if(left.begin(), left.end(), [](const Salvaged& each) {
      return each.verdict.result != StepResult::kDone &&
             each.verdict.result != StepResult::kAlready;
    });
    if (bad != left.end())
      throw pnl_err::Error(kRunFailed, node.target.name, bad->object)
          .add_param("message", "'" + bad->object + "' was changed by somebody else meanwhile");
  }
  node.booked.steps = {step};
  node.late = {NewKeyEdit(node.target.login->user, key)};
  MakeOn(journal, node, host, turn, run);
  if (node.booked.state != NodeRunState::kFailed) {
    EndSteps(host, MarkOf(run, node));
    node.booked.state = NodeRunState::kDone;
    return;
  }
  UndoOn(node, host, run);
  if (node.booked.state == NodeRunState::kUndone) Book(journal, run, node, {step});
  node.booked.state = NodeRunState::kBehind;
}

void Crew::CatchUp(Journal& journal, const RunHead& run, const std::vector<std::size_t>& which) {
  if (which.empty()) return;
  const KeyChange key = KeyChange::Read(run.key);
  const std::string kept = KeptKey(key, run.id);
  for (const std::size_t i : which) {
    if (pnl_file::Exists(kept)) nodes[i].target.login->key_file = kept;
    nodes[i].booked.reason.clear();
  }
  const auto owe = [](CrewNode& node, const pnl_err::Error& error, const std::string& reason) {
    node.error = error;
    node.booked.reason = reason;
    node.booked.state = NodeRunState::kBehind;
  };
  Work(journal, run, RunPhase::kMake, which, false, owe,
       [&](CrewNode& node, pnl_host::Host& host, const Turn& turn) {
         CatchUpOn(journal, node, host, turn, run);
       });
}

}  // namespace fleet
