#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "brefir/export.h"
#include "pnl/err.h"
#include "pnl/job.h"
#include "pnl/thread.h"

/// A new SSH key pair of the panel, on every managed node or on none.
///
///     pnl_job::Transaction transaction;
///     ssh_gen::SshKeyGenerator generator(public_key, private_key, known_hosts);
///     const ssh_gen::CreateSshKeysJob& pair = generator.KeyPair();
///     new ssh_gen::SshKeyGenerator::ApplySshKeysToRemoteNodesJob(
///         {.nodes = nodes,
///          .private_key_path = private_key,
///          .public_key_path = public_key,
///          .new_private_key_path = pair.TemporaryPrivateKeyPath(),
///          .new_private_key_text = pair.TemporaryPrivateKeyValue(),
///          .new_public_key_text = pair.TemporaryPublicKeyValue(),
///          .known_hosts_path = known_hosts});
///     ... log in to every node with the new key ...
///     transaction.Commit();
///
/// Until the commit, the files of the pair are the old ones and every node accepts both keys. All
/// commands are lines of the local shell: paths, node addresses and the destination directory stand
/// in them unquoted and have to be plain words; one with a single quote fails its node
/// (pnl_err::Access).
///
/// Errors are pnl_err::Error of the types named below.
namespace ssh_gen {

// Behind the names of key files: the new one until it is in place, the old one once it is replaced,
// the public half of a private key.
inline constexpr const char* kNew = ".new";
inline constexpr const char* kOld = ".old";
inline constexpr const char* kPublic = ".pub";

/// On every node; beside it stand kNew and kOld.
inline constexpr char kAuthorizedKeys[] = "/root/.ssh/authorized_keys";
/// What a node may have there at most, in bytes: its text is held in memory, for all nodes at once.
inline constexpr std::size_t kMaxAuthorizedKeys = std::size_t{4} << 20;

inline constexpr const char* kCopyFailed = "copy_ssh_keys";  ///< the type of its error

// --- The key pair

/// Makes a new RSA pair beside the present one and puts it in its place on commit.
///
/// The constructor copies both present files to "<path>.old" (they must exist), makes the new pair
/// under a temporary name, syncs it to the disk and keeps its text. Commit renames private, then
/// public key over the old ones: at every moment a complete pair is at hand, among the files
/// themselves, the ".old" ones and the temporary ones. Rollback removes the temporary files. The
/// ".old" copies stay in any case, and so does what a failed constructor has made. No file of a
/// private key is ever readable by others here, a ".old" of an earlier run included.
///
/// Throws "backup_ssh_keys" (a copy failed), "randomize_filename_fail", and "ssh_keygen_fail"
/// (value the temporary private key path, parameter "errorcode" the exit code of ssh-keygen(1)).
class BREFIR_API CreateSshKeysJob : public pnl_job::SafeJob {
 public:
  CreateSshKeysJob(const std::string& public_key_path, const std::string& private_key_path);
  ~CreateSshKeysJob() override;

  std::string TemporaryPrivateKeyPath() const;
  std::string TemporaryPublicKeyPath() const;  ///< that with ".pub"
  std::string TemporaryPrivateKeyValue() const;
  std::string TemporaryPublicKeyValue() const;

  /// `path`, a dot and 16 random hexadecimal digits: no file of that name exists.
  std::string RandomizeFilename(const std::string& path) const;

 protected:
  void onCommit() override;
  void onRollback() override;

 private:
  std::string public_key_path_;
  std::string private_key_path_;
  std::string temporary_private_key_path_;
  std::string temporary_public_key_path_;
  std::string temporary_private_key_value_;
  std::string temporary_public_key_value_;
};

// --- One node

// States of a node.
inline constexpr const char* kRunning = "RUNNING";
inline constexpr const char* kFinished = "FINISHED";
inline constexpr const char* kError = "ERROR";

/// Who wants to see the distribution at work, or to end it early. Both are called by several
/// threads at once. What they throw is logged and changes nothing.
struct BREFIR_API RolloutWatch {
  /// A node has a new state; kError comes with the reason.
  std::function<void(const std::string& node, const std::string& state, const std::string& reason)>
      changed;
  /// Asked between steps: true fails the nodes that are still at work (error "interrupted"), which
  /// rolls all of them back.
  std::function<bool()> stop;
};

/// What the distribution is told.
struct BREFIR_API Rollout {
  std::vector<std::string> nodes;
  std::string private_key_path;      ///< the key that the nodes accept now
  std::string public_key_path;       ///< its public half
  std::string new_private_key_path;  ///< with that key nodes are put back that have the new one
  std::string new_private_key_text;
  std::string new_public_key_text;
  /// "" leaves host keys to the user's ssh configuration; with a file, unknown and changed keys are
  /// let through and noted there.
  std::string known_hosts_path = {};
  bool copy_keys = false;            ///< places the key files on each node, too, in
  std::string destination_dir = {};  ///< this directory
  RolloutWatch watch = {};
};

/// For so long a node that refuses to be put back, or to have a file removed, is asked again, and
/// room on this host is waited for where nobody is at work who would make it.
inline constexpr std::chrono::seconds kUndoTime{30};

/// What the distribution knows of a node. To be read after the join only.
struct BREFIR_API ThreadInfo {
  std::string id;     ///< its position in the list, from 1, in decimal
  std::string node;   ///< its address
  std::string state;  ///< one of those above
  std::shared_ptr<pnl_thread::Handle> thread;
  bool local = false;      ///< it is this host, as far as the distribution could tell
  bool backed_up = false;  ///< ".old" was, or may have been, made
  bool replaced = false;   ///< authorized_keys was, or may have been, replaced, and is not put back
  std::chrono::milliseconds patience = kUndoTime;  ///< left for undoing that the node refuses
};

/// What both thread bodies know: how to reach a node, and where the key files are here and there.
///
/// The constructor runs `ssh` once, to see whether the node is this very host.
class BREFIR_API SshKeyThread {
 public:
  /// Whether the node is this host: a random text in a file below /tmp here reads the same there.
  /// Throws "check_local" (value that file, parameter "exitcode") where the node gave no answer,
  /// "proc" where the question could not be put (ssh(1) did not start, or took longer than 120 s),
  /// "file" for the temporary file.
  bool IsLocal();

 protected:
  /// Where IsLocal throws, it is what `info` says, and `unanswered_` says why.
  SshKeyThread(ThreadInfo& info, const std::string& ssh_key_path,
               const std::string& private_key_path, const std::string& public_key_path,
               const std::string& known_hosts_path, bool copy_keys,
               const std::string& destination_dir);

  /// "ssh -i KEY ... root@NODE "
  std::string Prefix() const;
  /// Whether key files go to the node: asked for, and the node is not this host.
  bool PlacesKeys() const { return copy_keys_ && !local_; }

  std::string id_;
  std::string node_;
  std::string ssh_key_path_;
  std::string local_private_key_path_;
  std::string local_public_key_path_;
  std::string remote_private_key_path_;
  std::string remote_public_key_path_;
  std::string spare_[2];
  std::string known_hosts_path_;
  bool copy_keys_;
  std::string destination_dir_;
  bool local_;
  ThreadInfo* info_;
  std::optional<pnl_err::Error> unanswered_;

 private:
  void ChooseRemotePaths();
};

/// Adds the new public key on one node, and places the key files there if asked to; the body of a
/// thread. What it has begun is undone when a step fails; the error does not leave it.
class BREFIR_API NodeApplySshkeyThread : public SshKeyThread {
 public:
  /// `info` and `watch` must outlive the object. Throws what IsLocal does, but for "check_local":
  /// that fails the node when it runs.
  NodeApplySshkeyThread(ThreadInfo& info, const std::string& private_key_path,
                        const std::string& public_key_path, const std::string& known_hosts_path,
                        bool copy_keys, const std::string& destination_dir,
                        const std::string& new_private_key, const std::string& new_public_key,
                        const RolloutWatch& watch);
  void operator()();

 private:
  void SetState(const char* state, const std::string& reason = "");
  void Distribute() const;
  void Save(const std::string& path, const std::string& text) const;
  void BackUp() const;
  void Replace() const;
  void ThrowIfStopped() const;

  std::string* state_;
  std::string new_private_key_;
  std::string new_public_key_;
  const RolloutWatch* watch_;
};

/// Puts the files of one node back as they were; the body of a thread. A failure is logged, and
/// leaves `info` "replaced" where it was.
class BREFIR_API NodeRollbackSshkeyThread : public SshKeyThread {
 public:
  /// `info` must outlive the object.
  NodeRollbackSshkeyThread(ThreadInfo& info, const std::string& ssh_key_path,
                           const std::string& private_key_path, const std::string& public_key_path,
                           const std::string& known_hosts_path, bool copy_keys,
                           const std::string& destination_dir);
  void operator()();

  /// The work itself, outside any transaction. Throws "rollback_keys" (parameter "exitcode").
  void Restore() const;
};

/// A file that is made on a node: removed again on rollback, if that can be.
class BREFIR_API SaveToRemoteFileJob : public pnl_job::SafeJob {
 public:
  /// `info` is its node's record, which must outlive the transaction; null for kUndoTime of its
  /// own.
  SaveToRemoteFileJob(std::string ssh_prefix, std::string path, ThreadInfo* info = nullptr);
  ~SaveToRemoteFileJob() override;

 protected:
  void onRollback() override;

 private:
  std::string prefix_;
  std::string path_;
  ThreadInfo* info_;
};

// --- All nodes

/// Makes the key pair, as a job of the calling thread's transaction, which owns it.
class BREFIR_API SshKeyGenerator {
 public:
  /// Throws as CreateSshKeysJob does. `third_path` is kept for the caller.
  SshKeyGenerator(const std::string& public_key_path, const std::string& private_key_path,
                  const std::string& third_path);

  /// Lives until the transaction ends.
  const CreateSshKeysJob& KeyPair() const { return *key_pair_; }

  /// Adds a public key to root's authorized keys on all nodes, or on none.
  ///
  /// The constructor starts one thread a node, without limit, and waits for them. When this host
  /// cannot begin one, nothing further is begun. When one fails, all nodes begun are put back and
  /// "copy_ssh_keys" is thrown: parameter "nodes" those that failed, "not_restored" those whose
  /// authorized keys were, or may have been, replaced and could not be put back (absent when there
  /// is none). A later rollback of the transaction puts all of them back as well; what it cannot
  /// restore is logged (level 3). Each running node takes a thread, an ssh(1) process without
  /// terminal and input, and about four descriptors.
  ///
  /// Authorized keys of more than kMaxAuthorizedKeys fail their node ("proc", "output").
  ///
  /// On each node /root/.ssh/authorized_keys is copied to ".old", and replaced by a rename: it is
  /// the old file, or the old file with the new key. Going back renames ".old" over it. Three
  /// things these steps do not guard against, so that a caller has to: a ".old" of an earlier run
  /// is put back on a node that failed before its own copy was made; what the node's cat(1) could
  /// not read of the file is missing from the new one; and with `copy_keys` a node that had no key
  /// files before keeps the new ones, the private key too, as there is no ".old" of them.
  ///
  /// A node that refuses a connection, as sshd's MaxStartups has it, has failed; going back asks it
  /// again for kUndoTime, and first for as long to remove what was made there. Where this host has
  /// no room for one more process or its pipes, going back waits until another ssh(1) of the
  /// distribution has ended.
  ///
  /// An ssh(1) that runs longer than 120 s is ended and counts as failed. The nodes are asked one
  /// after another whether they are this host: an address that swallows packets costs 120 s there
  /// and fails its node; in a rollback it costs them again.
  class BREFIR_API ApplySshKeysToRemoteNodesJob : public pnl_job::SafeJob {
   public:
    explicit ApplySshKeysToRemoteNodesJob(const Rollout& rollout);
    /// The same in single words; `spare_path` is kept for the caller.
    ApplySshKeysToRemoteNodesJob(
        const std::vector<std::string>& nodes, const std::string& private_key_path,
        const std::string& public_key_path, const std::string& new_private_key_path,
        const std::string& spare_path, const std::string& new_private_key_text,
        const std::string& new_public_key_text, const std::string& known_hosts_path, bool copy_keys,
        const std::string& destination_dir, RolloutWatch watch = {});
    ~ApplySshKeysToRemoteNodesJob() override;

    bool Done() const { return done_; }  ///< every node is kFinished

   protected:
    void onRollback() override;

   private:
    /// Stops at the first node that cannot be begun, and returns it.
    std::string BeginAll(const std::vector<std::string>& nodes);
    void Begin(const std::string& node);
    std::string NotRestored() const;

    std::vector<std::shared_ptr<ThreadInfo>> threads_;
    std::string private_key_path_;
    std::string public_key_path_;
    std::string spare_path_;
    std::string new_private_key_path_;
    std::string new_private_key_text_;
    std::string new_public_key_text_;
    std::string known_hosts_path_;
    bool copy_keys_;
    std::string destination_dir_;
    bool done_ = false;
    RolloutWatch watch_;
  };

 private:
  std::string public_key_path_;
  std::string private_key_path_;
  std::string third_path_;
  CreateSshKeysJob* key_pair_;  // owned by the transaction
};

}  // namespace ssh_gen
