#include "fleet/retirement.h"

#include <map>

#include "brefir/ssh_utils.h"
#include "brefir/sshkey_generate.h"
#include "fleet/authorized_keys.h"
#include "fleet/errors.h"
#include "pnl/err.h"
#include "pnl/host.h"

namespace fleet {
namespace {

using ssh_gen::kAuthorizedKeys;

/// When others have written meanwhile, the file is read again, so that their change stays.
constexpr int kTries = 5;

std::string ReadKeys(pnl_rpc::SSH& ssh) {
  return NodeText(ssh, kAuthorizedKeys, ssh_gen::kMaxAuthorizedKeys);
}

/// The file's text without the old key. The key must not be "": KeyOf is "" for every comment.
std::string Rest(const pnl_rpc::SSH& ssh, const std::string& keys, const Retirement& retirement) {
  if (retirement.old_key.empty() || retirement.old_key == retirement.current_key)
    throw pnl_err::Error("retirement", "key", retirement.old_key);
  std::string rest = WithoutKey(keys, retirement.old_key);
  if (rest != keys && LinesWith(rest, retirement.current_key).empty())
    throw NodeError(ssh, kAuthorizedKeys,
                    std::string("refused: '") + kAuthorizedKeys +
                        "' would not contain the key that the panel logs in with");
  return rest;
}

/// False when somebody else has changed the file since it was `before`.
bool Replaced(pnl_rpc::SSH& ssh, const std::string& before, const std::string& after) {
  try {
    pnl_host::Host(ssh).Replace(kAuthorizedKeys, after, {.before = before});
    return true;
  } catch (const pnl_err::Error& error) {
    if (error.type() == pnl_host::kConflict) return false;
    if (error.type() != pnl_host::kReplaceFailed) throw;
    throw NodeError(ssh, kAuthorizedKeys,
                    std::string("'") + kAuthorizedKeys + "' could not be replaced: " +
                        error.param("reason") + "; it stays as it was");
  }
}

pnl_err::Error Busy(const pnl_rpc::SSH& ssh, const std::string& outcome) {
  return NodeError(
      ssh, kAuthorizedKeys,
      std::string("'") + kAuthorizedKeys + "' is being changed by another program; " + outcome);
}

}  // namespace

Plan PreviewRetirement(const KeySetup& setup, const Retirement& retirement,
                       const NodeWatch& watch) {
  std::map<std::string, Step> steps;
  for (const std::string& node : setup.nodes)  // before the threads start
    steps[node] = {.node = node, .kind = StepKind::kFile, .object = kAuthorizedKeys};
  NodeWork work(setup.nodes, watch);
  work.Visit([&](const std::string& node) {
    pnl_rpc::SSH ssh = LogIn(setup, node, setup.private_key);
    Step& step = steps.at(node);
    step.before = ReadKeys(ssh);
    step.after = Rest(ssh, *step.before, retirement);
    return NodeState::kChecked;
  });
  if (work.Failed()) {
    throw pnl_err::Error(kRetirementFailed)
        .add_param("nodes", work.FailedNodes())
        .add_param("message", work.Failures() + "; no key was changed");
  }
  Plan plan;
  for (const std::string& node : setup.nodes) plan.push_back(steps.at(node));
  return plan;
}

bool RetireKey(const KeySetup& setup, const Retirement& retirement, const std::string& node) {
  pnl_rpc::SSH ssh = LogIn(setup, node, setup.private_key);
  std::string keys;
  std::string rest;
  for (int tries = kTries;; --tries) {
    keys = ReadKeys(ssh);
    rest = Rest(ssh, keys, retirement);
    if (rest == keys) return false;
    if (Replaced(ssh, keys, rest)) break;
    if (tries == 1) throw Busy(ssh, "the old key stays");
  }
  try {
    const pnl_rpc::SSH again = LogIn(setup, node, setup.private_key);
  } catch (const pnl_err::Error&) {
    // Over the connection that is still open.
    if (!Replaced(ssh, rest, keys))
      throw Busy(ssh,
                 "the old key is removed, and the panel cannot log in any more: repair this node");
    throw;
  }
  return true;
}

}  // namespace fleet
