#include "fleet/ssh_rotation.h"

#include <map>
#include <mutex>
#include <optional>
#include <utility>

#include "brefir/ssh_utils.h"
#include "brefir/sshkey_generate.h"
#include "fleet/authorized_keys.h"
#include "fleet/errors.h"
#include "fleet/rotation_record.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace fleet {
namespace {

namespace file = ssh_utils::file;
using ssh_gen::kAuthorizedKeys;

pnl_err::Error NodeFault(const std::string& message) {
  return pnl_err::Error("node").add_param("message", message);
}

/// These are unquoted on the command lines of the distribution and in the record.
void RequirePlain(const KeySetup& setup, const std::string& key_dir) {
  std::vector<std::string> words = setup.nodes;
  words.push_back(setup.private_key);
  words.push_back(setup.public_key);
  for (const std::string& word : {setup.known_hosts, key_dir}) {
    if (!word.empty()) words.push_back(word);
  }
  for (const std::string& word : words) {
    if (pnl_proc::Escape(word) != word) throw pnl_err::Error("rotation", "word", word);
  }
}

void MoveOutOfTheWay(pnl_rpc::SSH& ssh, const std::string& path) {
  const std::string old = path + ssh_gen::kOld;
  if (!file::Exists(ssh, old, "e")) return;
  file::Rename(ssh, old, path + ".older");
  if (file::Exists(ssh, old, "e"))
    throw NodeFault("'" + old + "' of an earlier run is in the way and cannot be renamed");
}

bool Is(pnl_rpc::SSH& ssh, const std::string& path, const std::string& text) {
  return file::Exists(ssh, path, "f") && NodeText(ssh, path, ssh_gen::kMaxAuthorizedKeys) == text;
}

/// The rollback reports no result, and it logs in with the new key, which the node may refuse.
void PutBack(pnl_rpc::SSH& ssh, const std::string& path, const std::string& text) {
  if (Is(ssh, path, text)) return;
  const std::string old = path + ssh_gen::kOld;
  if (Is(ssh, old, text)) file::Rename(ssh, old, path);
  if (!Is(ssh, path, text)) throw NodeFault("'" + path + "' is not what it was before");
}

class Rotation {
 public:
  Rotation(const KeySetup& setup, const std::string& key_dir, const NodeWatch& watch)
      : setup_(setup), key_dir_(key_dir), work_(setup.nodes, watch) {}

  Plan Preview();
  void Run();

 private:
  /// A file of a node as it was before.
  struct File {
    std::string path;
    std::optional<std::string> text;  // null: there was none
  };
  using Before = std::vector<File>;  // files of a node; authorized keys are the first

  std::vector<std::string> KeyFiles() const;
  Before Look(pnl_rpc::SSH& ssh) const;
  void Remember(const std::string& node, Before before);
  NodeState Check(const std::string& node);
  void Distribute();
  ssh_gen::RolloutWatch Watch();
  BegunRotation::Files Missing(bool of_failed) const;
  const std::string& OldKeys(const std::string& node) const;
  NodeState Prove(const std::string& node, const std::string& new_private_key) const;
  NodeState LookAfter(const std::string& node) const;
  [[noreturn]] void UndoneAndLookedAt();
  [[noreturn]] void ThrowFailed(const std::string& outcome) const;

  const KeySetup& setup_;
  const std::string& key_dir_;
  NodeWork work_;
  std::mutex mutex_;  // guards before_ while nodes are checked
  std::map<std::string, Before> before_;
};

Plan Rotation::Preview() {
  work_.Visit([this](const std::string& node) {
    pnl_rpc::SSH ssh = LogIn(setup_, node, setup_.private_key);
    Remember(node, Look(ssh));
    return NodeState::kChecked;
  });
  if (work_.Failed()) ThrowFailed("a rotation would fail");
  Plan plan;
  for (const std::string& node : setup_.nodes) {
    const std::string& keys = OldKeys(node);
    const char* end = keys.empty() || keys.ends_with('\n') ? "" : "\n";
    plan.push_back({.node = node,
                    .kind = StepKind::kFile,
                    .object = kAuthorizedKeys,
                    .before = keys,
                    .after = keys + end + "ssh-rsa (the new key)\n"});
    for (const std::string& path : KeyFiles())  // never show a private key
      plan.push_back(
          {.node = node, .kind = StepKind::kValue, .object = path, .after = "the new key"});
  }
  return plan;
}

void Rotation::Run() {
  work_.Visit([this](const std::string& node) { return Check(node); });
  if (work_.Failed()) ThrowFailed("no key was changed");
  try {
    Distribute();
  } catch (const pnl_err::Error& error) {
    if (error.type() != ssh_gen::kCopyFailed) throw;  // about the local files: no node was changed
    UndoneAndLookedAt();
  }
}

// --- Before

std::vector<std::string> Rotation::KeyFiles() const {
  if (key_dir_.empty()) return {};
  return {pnl_file::ConcatPath(key_dir_, pnl_file::Name(setup_.private_key)),
          pnl_file::ConcatPath(key_dir_, pnl_file::Name(setup_.public_key))};
}

Rotation::Before Rotation::Look(pnl_rpc::SSH& ssh) const {
  if (!key_dir_.empty() && !file::Exists(ssh, key_dir_, "d"))
    throw NodeFault("there is no directory '" + key_dir_ + "' for the key files");
  if (!file::Exists(ssh, kAuthorizedKeys, "f"))
    throw NodeFault(std::string("there is no '") + kAuthorizedKeys + "' to add the new key to");
  Before before{{kAuthorizedKeys, NodeText(ssh, kAuthorizedKeys, ssh_gen::kMaxAuthorizedKeys)}};
  for (const std::string& path : KeyFiles()) {
    const bool exists = file::Exists(ssh, path, "e");
    before.push_back({path, exists ? std::optional(NodeText(ssh, path, ssh_gen::kMaxAuthorizedKeys))
                                   : std::nullopt});
    const std::string made = path + ssh_gen::kNew;
    if (!file::Exists(ssh, made, "e")) before.push_back({made, std::nullopt});
  }
  return before;
}

void Rotation::Remember(const std::string& node, Before before) {
  const std::lock_guard guard(mutex_);
  before_[node] = std::move(before);
}

const std::string& Rotation::OldKeys(const std::string& node) const {
  return *before_.at(node).front().text;
}

/// Key files that did not exist before, of all nodes or of the failed ones.
BegunRotation::Files Rotation::Missing(bool of_failed) const {
  BegunRotation::Files missing;
  for (const auto& [node, before] : before_) {
    if (of_failed && !work_.Failed(node)) continue;
    for (const File& was : before) {
      if (!was.text) missing[node].push_back(was.path);
    }
  }
  return missing;
}

NodeState Rotation::Check(const std::string& node) {
  pnl_rpc::SSH ssh = LogIn(setup_, node, setup_.private_key);
  Remember(node, Look(ssh));
  MoveOutOfTheWay(ssh, kAuthorizedKeys);
  for (const std::string& path : KeyFiles()) MoveOutOfTheWay(ssh, path);
  return NodeState::kChecked;
}

// --- The change

ssh_gen::RolloutWatch Rotation::Watch() {
  return {.changed =
              [this](const std::string& node, const std::string& state, const std::string& reason) {
                if (state == ssh_gen::kError) return work_.Fail(node, reason);
                work_.Set(node,
                          state == ssh_gen::kFinished ? NodeState::kFinished : NodeState::kRunning);
              },
          .stop = [this] { return work_.Stopped(); }};
}

void Rotation::Distribute() {
  pnl_job::Transaction transaction;
  const ssh_gen::SshKeyGenerator generator(setup_.public_key, setup_.private_key,
                                           setup_.known_hosts);
  const ssh_gen::CreateSshKeysJob& pair = generator.KeyPair();
  NoteRotation(setup_.private_key, {pair.TemporaryPrivateKeyPath(),
                                    KeyOf(pair.TemporaryPublicKeyValue()), Missing(false)});
  // NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks): the transaction owns it
  new ssh_gen::SshKeyGenerator::ApplySshKeysToRemoteNodesJob(
      {.nodes = setup_.nodes,
       .private_key_path = setup_.private_key,
       .public_key_path = setup_.public_key,
       .new_private_key_path = pair.TemporaryPrivateKeyPath(),
       .new_private_key_text = pair.TemporaryPrivateKeyValue(),
       .new_public_key_text = str::Trim(pair.TemporaryPublicKeyValue()),
       .known_hosts_path = setup_.known_hosts,
       .copy_keys = !key_dir_.empty(),
       .destination_dir = key_dir_,
       .watch = Watch()});
  // NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)
  work_.Visit([&](const std::string& node) { return Prove(node, pair.TemporaryPrivateKeyPath()); });
  if (work_.Failed() || work_.Stopped()) throw pnl_err::Error(ssh_gen::kCopyFailed);
  transaction.Commit();
  ForgetRotation(setup_.private_key, {});
}

NodeState Rotation::Prove(const std::string& node, const std::string& new_private_key) const {
  pnl_rpc::SSH ssh = LogIn(setup_, node, new_private_key);
  if (!HasAllLines(NodeText(ssh, kAuthorizedKeys, ssh_gen::kMaxAuthorizedKeys), OldKeys(node)))
    throw NodeFault(std::string("the new '") + kAuthorizedKeys + "' lacks lines of the old one");
  return NodeState::kVerified;
}

// --- When it had to be undone

NodeState Rotation::LookAfter(const std::string& node) const {
  pnl_rpc::SSH ssh = LogIn(setup_, node, setup_.private_key);
  for (const File& was : before_.at(node)) {
    if (was.text) {
      PutBack(ssh, was.path, *was.text);
    } else {
      file::Remove(ssh, was.path);
    }
  }
  return NodeState::kRestored;
}

void Rotation::UndoneAndLookedAt() {
  const std::string failures = work_.Failed() ? work_.Failures() : "interrupted";
  const std::string nodes = work_.FailedNodes();
  work_.Restart();
  work_.Visit([this](const std::string& node) { return LookAfter(node); });
  ForgetRotation(setup_.private_key, Missing(true));
  pnl_err::Error error(ssh_gen::kCopyFailed);
  error.add_param("nodes", nodes);
  if (!work_.Failed()) {
    throw error.add_param("message", failures + "; the rotation is undone: all nodes are restored");
  }
  throw error.add_param("not_restored", work_.FailedNodes())
      .add_param("message", failures +
                                "; the rotation is undone, but these nodes are NOT RESTORED: " +
                                work_.Failures(setup_.nodes.size()));
}

void Rotation::ThrowFailed(const std::string& outcome) const {
  throw pnl_err::Error(ssh_gen::kCopyFailed)
      .add_param("nodes", work_.FailedNodes())
      .add_param("message", work_.Failures() + "; " + outcome);
}

}  // namespace

Plan PreviewRotation(const KeySetup& setup, const std::string& key_dir, const NodeWatch& watch) {
  RequirePlain(setup, key_dir);
  return Rotation(setup, key_dir, watch).Preview();
}

void RotateKeys(const KeySetup& setup, const std::string& key_dir, const NodeWatch& watch) {
  RequirePlain(setup, key_dir);
  Rotation(setup, key_dir, watch).Run();
}

}  // namespace fleet
