#include "tools/key_rotation.h"

#include <utility>

#include "brefir/ssh_utils.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "tools/authorized_keys.h"
#include "tools/diff.h"

namespace tools {
namespace {

namespace file = ssh_utils::file;
using ssh_gen::kAuthorizedKeys;
using Rollout = ssh_gen::SshKeyGenerator::ApplySshKeysToRemoteNodesJob;

pnl_err::Error NodeFault(const std::string& message) {
  return pnl_err::Error("node").add_param("message", message);
}

void MoveOutOfTheWay(pnl_rpc::SSH& ssh, const std::string& path) {
  const std::string old = path + ".old";
  if (!file::Exists(ssh, old, "e")) return;
  file::Rename(ssh, old, path + ".older");
  if (file::Exists(ssh, old, "e"))
    throw NodeFault("'" + old + "' of an earlier run is in the way and cannot be renamed");
}

}  // namespace

KeyRotation::KeyRotation(Context& context, KeySetup setup, std::string key_dir)
    : context_(context),
      setup_(std::move(setup)),
      key_dir_(std::move(key_dir)),
      work_(context, setup_.nodes, NodeTable::News::kLines) {}

void KeyRotation::DryRun() {
  work_.Visit([this](const std::string& node) {
    pnl_rpc::SSH ssh = LogIn(setup_, node, setup_.private_key);
    Remember(node, Look(ssh));
    return "CHECKED";
  });
  std::string diffs;
  for (const auto& [node, before] : before_) {
    const char* end = before.keys.empty() || before.keys.ends_with('\n') ? "" : "\n";
    diffs += UnifiedDiff(before.keys, before.keys + end + "ssh-rsa (the new key)\n",
                         node + ":" + kAuthorizedKeys);
  }
  if (work_.Failed()) ThrowFailed("a rotation would not begin");
  work_.End();
  context_.out.Text("diff", diffs);
}

void KeyRotation::Run() {
  work_.Visit([this](const std::string& node) { return Check(node); });
  if (work_.Failed()) ThrowFailed("no key was touched");
  try {
    Distribute();
  } catch (const pnl_err::Error& error) {
    if (error.type() != "copy_ssh_keys") throw;  // of the files here: no node was begun
    UndoneAndLookedAt();
  }
  work_.Print();
}

// --- Before

std::vector<std::string> KeyRotation::KeyFiles() const {
  if (key_dir_.empty()) return {};
  return {pnl_file::ConcatPath(key_dir_, pnl_file::Name(setup_.private_key)),
          pnl_file::ConcatPath(key_dir_, pnl_file::Name(setup_.public_key))};
}

KeyRotation::Before KeyRotation::Look(pnl_rpc::SSH& ssh) const {
  if (!key_dir_.empty() && !file::Exists(ssh, key_dir_, "d"))
    throw NodeFault("there is no directory '" + key_dir_ + "' for the key files");
  if (!file::Exists(ssh, kAuthorizedKeys, "f"))
    throw NodeFault(std::string("there is no '") + kAuthorizedKeys + "' to add the new key to");
  Before before{file::Read(ssh, kAuthorizedKeys), {}};
  for (const std::string& path : KeyFiles()) {
    if (!file::Exists(ssh, path, "e")) before.missing.push_back(path);
  }
  return before;
}

void KeyRotation::Remember(const std::string& node, Before before) {
  const std::lock_guard guard(mutex_);
  before_[node] = std::move(before);
}

std::string KeyRotation::Check(const std::string& node) {
  pnl_rpc::SSH ssh = LogIn(setup_, node, setup_.private_key);
  Remember(node, Look(ssh));
  MoveOutOfTheWay(ssh, kAuthorizedKeys);
  for (const std::string& path : KeyFiles()) MoveOutOfTheWay(ssh, path);
  return "CHECKED";
}

// --- The change

ssh_gen::RolloutWatch KeyRotation::Watch() {
  return {.changed =
              [this](const std::string& node, const std::string& state, const std::string& reason) {
                if (state == "ERROR") return work_.Fail(node, reason);
                work_.Set(node, state);
              },
          .stop = [this] { return work_.Interrupted(); }};
}

void KeyRotation::Distribute() {
  pnl_job::Transaction transaction;
  const ssh_gen::SshKeyGenerator generator(setup_.public_key, setup_.private_key,
                                           setup_.known_hosts);
  const ssh_gen::CreateSshKeysJob& pair = generator.KeyPair();
  // NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks): the transaction owns it
  new Rollout(setup_.nodes, setup_.private_key, setup_.public_key, pair.TemporaryPrivateKeyPath(),
              "", pair.TemporaryPrivateKeyValue(), str::Trim(pair.TemporaryPublicKeyValue()),
              setup_.known_hosts, !key_dir_.empty(), key_dir_, Watch());
  // NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)
  work_.Visit([&](const std::string& node) { return Prove(node, pair.TemporaryPrivateKeyPath()); });
  if (work_.Failed() || work_.Interrupted()) throw pnl_err::Error("copy_ssh_keys");
  transaction.Commit();
}

std::string KeyRotation::Prove(const std::string& node, const std::string& new_private_key) const {
  pnl_rpc::SSH ssh = LogIn(setup_, node, new_private_key);
  if (!HasAllLines(file::Read(ssh, kAuthorizedKeys), before_.at(node).keys))
    throw NodeFault(std::string("the new '") + kAuthorizedKeys + "' lacks lines of the old one");
  return "VERIFIED";
}

// --- When it had to be undone

/// The rollback does not tell how it went.
std::string KeyRotation::LookAfter(const std::string& node) const {
  const Before& before = before_.at(node);
  pnl_rpc::SSH ssh = LogIn(setup_, node, setup_.private_key);
  for (const std::string& path : before.missing) file::Remove(ssh, path);
  if (file::Read(ssh, kAuthorizedKeys) != before.keys)
    throw NodeFault(std::string("'") + kAuthorizedKeys + "' is not what it was before");
  return "RESTORED";
}

void KeyRotation::UndoneAndLookedAt() {
  const std::string failures = work_.Failed() ? work_.Failures() : "interrupted";
  const std::string nodes = work_.FailedNodes();
  work_.Restart();
  work_.Visit([this](const std::string& node) { return LookAfter(node); });
  work_.Print();
  const std::string outcome = work_.Failed() ? "undone, but LOOK AFTER these: " + work_.Failures()
                                             : "undone, and every node is as it was";
  throw pnl_err::Error("copy_ssh_keys")
      .add_param("nodes", nodes)
      .add_param("message", "copy_ssh_keys: " + failures + "; " + outcome);
}

void KeyRotation::ThrowFailed(const std::string& outcome) {
  work_.Print();
  throw pnl_err::Error("copy_ssh_keys")
      .add_param("nodes", work_.FailedNodes())
      .add_param("message", "copy_ssh_keys: " + work_.Failures() + "; " + outcome);
}

}  // namespace tools
