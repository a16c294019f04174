#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "brefir/sshkey_generate.h"
#include "tools/key_nodes.h"
#include "tools/key_record.h"

namespace tools {

/// A new key pair on all nodes: guarded before, proved before the commit, and looked after when it
/// had to be undone.
///
///   1. Every node is logged in to, its authorized keys are read, and what an earlier run left
///      there ("<file>.old") goes out of the way ("<file>.older"): a rollback would restore it.
///   2. The pair is made and distributed.
///   3. Every node is logged in to with the new key, on a fresh connection, and has to have every
///      old line still.
///   4. The new pair takes its place here.
///
/// What fails, or is interrupted, before 4 puts everything back, which is then looked at. What is
/// killed is looked after by the next rotation (key_record.h).
class KeyRotation {
 public:
  /// `key_dir`: where the key files go on each node, "" for nowhere.
  KeyRotation(Context& context, KeySetup setup, std::string key_dir);

  /// Shows what each node's file would become, and changes nothing anywhere.
  void DryRun();
  /// Throws pnl_err::Error("copy_ssh_keys") when a node failed or the user interrupted.
  void Run();

 private:
  /// A file of a node as it was before.
  struct File {
    std::string path;
    std::optional<std::string> text;  ///< null: there was none
  };
  using Before = std::vector<File>;  ///< of a node, its authorized keys first

  std::vector<std::string> KeyFiles() const;
  Before Look(pnl_rpc::SSH& ssh) const;
  void Remember(const std::string& node, Before before);
  std::string Check(const std::string& node);
  void Distribute();
  ssh_gen::RolloutWatch Watch();
  BegunRotation::Files Missing(bool of_failed) const;
  const std::string& OldKeys(const std::string& node) const;
  std::string Prove(const std::string& node, const std::string& new_private_key) const;
  std::string LookAfter(const std::string& node) const;
  [[noreturn]] void UndoneAndLookedAt();
  [[noreturn]] void ThrowFailed(const std::string& outcome);

  Context& context_;
  const KeySetup setup_;
  const std::string key_dir_;
  NodeWork work_;
  std::mutex mutex_;  // guards before_ while nodes are checked
  std::map<std::string, Before> before_;
};

}  // namespace tools
