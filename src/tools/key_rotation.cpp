#include "tools/key_rotation.h"

#include <utility>

#include "brefir/ssh_utils.h"
#include "fleet/diff.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "tools/authorized_keys.h"

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
    const std::string& keys = OldKeys(node);
    const char* end = keys.empty() || keys.ends_with('\n') ? "" : "\n";
    diffs += fleet::UnifiedDiff(keys, keys + end + "ssh-rsa (the new key)\n",
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
  Before before{{kAuthorizedKeys, file::Read(ssh, kAuthorizedKeys, ssh_gen::kMaxAuthorizedKeys)}};
  for (const std::string& path : KeyFiles()) {
    const bool exists = file::Exists(ssh, path, "e");
    before.push_back({path, exists
                                ? std::optional(file::Read(ssh, path, ssh_gen::kMaxAuthorizedKeys))
                                : std::nullopt});
    const std::string made = path + ".new";
    if (!file::Exists(ssh, made, "e")) before.push_back({made, std::nullopt});
  }
  return before;
}

void KeyRotation::Remember(const std::string& node, Before before) {
  const std::lock_guard guard(mutex_);
  before_[node] = std::move(before);
}

const std::string& KeyRotation::OldKeys(const std::string& node) const {
  return *before_.at(node).front().text;
}

/// Key files that were not there before, of all nodes or of those that failed.
BegunRotation::Files KeyRotation::Missing(bool of_failed) const {
  BegunRotation::Files missing;
  for (const auto& [node, before] : before_) {
    if (of_failed && !work_.Failed(node)) continue;
    for (const File& was : before) {
      if (!was.text) missing[node].push_back(was.path);
    }
  }
  return missing;
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
  NoteRotation(setup_.private_key, {pair.TemporaryPrivateKeyPath(),
                                    KeyOf(pair.TemporaryPublicKeyValue()), Missing(false)});
  // NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks): the transaction owns it
  new Rollout(setup_.nodes, setup_.private_key, setup_.public_key, pair.TemporaryPrivateKeyPath(),
              "", pair.TemporaryPrivateKeyValue(), str::Trim(pair.TemporaryPublicKeyValue()),
              setup_.known_hosts, !key_dir_.empty(), key_dir_, Watch());
  // NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)
  work_.Visit([&](const std::string& node) { return Prove(node, pair.TemporaryPrivateKeyPath()); });
  if (work_.Failed() || work_.Interrupted()) throw pnl_err::Error("copy_ssh_keys");
  transaction.Commit();
  ForgetRotation(setup_.private_key, {});
}

std::string KeyRotation::Prove(const std::string& node, const std::string& new_private_key) const {
  pnl_rpc::SSH ssh = LogIn(setup_, node, new_private_key);
  if (!HasAllLines(file::Read(ssh, kAuthorizedKeys, ssh_gen::kMaxAuthorizedKeys), OldKeys(node)))
    throw NodeFault(std::string("the new '") + kAuthorizedKeys + "' lacks lines of the old one");
  return "VERIFIED";
}

// --- When it had to be undone

namespace {

bool Is(pnl_rpc::SSH& ssh, const std::string& path, const std::string& text) {
  return file::Exists(ssh, path, "f") && file::Read(ssh, path, ssh_gen::kMaxAuthorizedKeys) == text;
}

/// The rollback does not tell how it went, and logs in with the new key, which may be what the node
/// refuses.
void PutBack(pnl_rpc::SSH& ssh, const std::string& path, const std::string& text) {
  if (Is(ssh, path, text)) return;
  const std::string old = path + ".old";
  if (Is(ssh, old, text)) file::Rename(ssh, old, path);
  if (!Is(ssh, path, text)) throw NodeFault("'" + path + "' is not what it was before");
}

}  // namespace

std::string KeyRotation::LookAfter(const std::string& node) const {
  pnl_rpc::SSH ssh = LogIn(setup_, node, setup_.private_key);
  for (const File& was : before_.at(node)) {
    if (was.text) {
      PutBack(ssh, was.path, *was.text);
    } else {
      file::Remove(ssh, was.path);
    }
  }
  return "RESTORED";
}

void KeyRotation::UndoneAndLookedAt() {
  const std::string failures = work_.Failed() ? work_.Failures() : "interrupted";
  const std::string nodes = work_.FailedNodes();
  work_.Restart();
  work_.Visit([this](const std::string& node) { return LookAfter(node); });
  ForgetRotation(setup_.private_key, Missing(true));
  work_.Print();
  pnl_err::Error error("copy_ssh_keys");
  error.add_param("nodes", nodes);
  if (!work_.Failed()) {
    throw error.add_param("message",
                          "copy_ssh_keys: " + failures + "; undone, and every node is as it was");
  }
  throw error.add_param("not_restored", work_.FailedNodes())
      .add_param("message", "copy_ssh_keys: " + failures + "; undone, but LOOK AFTER these: " +
                                work_.Failures(setup_.nodes.size()));
}

void KeyRotation::ThrowFailed(const std::string& outcome) {
  work_.Print();
  throw pnl_err::Error("copy_ssh_keys")
      .add_param("nodes", work_.FailedNodes())
      .add_param("message", "copy_ssh_keys: " + work_.Failures() + "; " + outcome);
}

}  // namespace tools
