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

/// Distributes a new SSH key pair of the panel: to every managed node, or to none.
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
/// Until the commit, the local key files are the old ones, and every node accepts both keys. All
/// commands are run by the local shell: paths, node addresses and the destination directory are
/// unquoted in them and must be plain words. One with a single quote makes its node fail
/// (pnl_err::Access).
///
/// Errors are pnl_err::Error of the types named below.
namespace ssh_gen {

// Suffixes of key files: the new key until it is in place, the replaced old key, the public half of
// a private key.
inline constexpr const char* kNew = ".new";
inline constexpr const char* kOld = ".old";
inline constexpr const char* kPublic = ".pub";

/// The path on every node; the files with kNew and kOld are beside it.
inline constexpr char kAuthorizedKeys[] = "/root/.ssh/authorized_keys";
/// The largest such file of a node, in bytes: the texts of all nodes are in memory at the same
/// time.
inline constexpr std::size_t kMaxAuthorizedKeys = std::size_t{4} << 20;

inline constexpr const char* kCopyFailed = "copy_ssh_keys";  ///< the type of its error

// --- The key pair

/// Makes a new RSA pair beside the current one, and replaces the current one on commit.
///
/// The constructor copies both current files, which must exist, to "<path>.old". It makes the new
/// pair under a temporary name, syncs it to the disk and keeps its text. Commit renames first the
/// private, then the public key over the old one: at every moment a complete pair exists among
/// these files, the ".old" files and the temporary files. Rollback removes the temporary files. The
/// ".old" copies always stay, and so do the files of a failed constructor. Private key files here
/// are never readable by others, including a ".old" of an earlier run.
///
/// Throws "backup_ssh_keys" (a copy failed), "randomize_filename_fail", and "ssh_keygen_fail"
/// (value the temporary private key path, parameter "errorcode" the exit code of ssh-keygen(1)).
class BREFIR_API CreateSshKeysJob : public pnl_job::SafeJob {
 public:
  CreateSshKeysJob(const std::string& public_key_path, const std::string& private_key_path);
  ~CreateSshKeysJob() override;

  std::string TemporaryPrivateKeyPath() const;
  std::string TemporaryPublicKeyPath() const;  ///< the temporary private key path with ".pub"
  std::string TemporaryPrivateKeyValue() const;
  std::string TemporaryPublicKeyValue() const;

  /// `path`, a dot and 16 random hexadecimal digits; no file of that name exists.
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

/// Callbacks to watch the distribution, or to end it early. Several threads call them at the same
/// time. What they throw is logged and has no other effect.
struct BREFIR_API RolloutWatch {
  /// A node has a new state; for kError `reason` is set.
  std::function<void(const std::string& node, const std::string& state, const std::string& reason)>
      changed;
  /// Called between steps. True makes the unfinished nodes fail (error "interrupted"), and so rolls
  /// back all nodes.
  std::function<bool()> stop;
};

/// The parameters of the distribution.
struct BREFIR_API Rollout {
  std::vector<std::string> nodes;
  std::string private_key_path;      ///< the key that the nodes accept now
  std::string public_key_path;       ///< its public half
  std::string new_private_key_path;  ///< used to restore nodes that have the new key
  std::string new_private_key_text;
  std::string new_public_key_text;
  /// "": the user's ssh configuration decides about host keys. With a file, unknown and changed
  /// host keys are accepted and added to it.
  std::string known_hosts_path = {};
  bool copy_keys = false;            ///< whether to copy the key files to each node, into
  std::string destination_dir = {};  ///< this directory
  RolloutWatch watch = {};
};

/// How long restoring a node, or removing a file on it, is tried again when the node refuses. Also
/// how long to wait for free processes and descriptors on this host when no other ssh(1) of the
/// distribution is running.
inline constexpr std::chrono::seconds kUndoTime{30};

/// The data about one node. Read it only after the join.
struct BREFIR_API ThreadInfo {
  std::string id;     ///< its position in the list, from 1, in decimal
  std::string node;   ///< its address
  std::string state;  ///< one of the constants above
  std::shared_ptr<pnl_thread::Handle> thread;
  bool local = false;      ///< the node is this host, as far as known
  bool backed_up = false;  ///< ".old" was made, or may have been
  bool replaced = false;   ///< authorized_keys was replaced, or may have been, and is not restored
  std::chrono::milliseconds patience = kUndoTime;  ///< time left to undo when the node refuses
};

/// The common part of both thread bodies: how to reach a node, and the paths of the key files.
///
/// The constructor runs `ssh` once, to find out whether the node is this host.
class BREFIR_API SshKeyThread {
 public:
  /// Whether the node is this host: a temporary file with a random text in /tmp can be read there.
  /// Throws "check_local" (value that file, parameter "exitcode") when the node gave no answer,
  /// "proc" when ssh(1) did not start or took longer than 120 s, and "file" for the temporary file.
  bool IsLocal();

 protected:
  /// When IsLocal throws, `info.local` is used instead, and `unanswered_` keeps the reason.
  SshKeyThread(ThreadInfo& info, const std::string& ssh_key_path,
               const std::string& private_key_path, const std::string& public_key_path,
               const std::string& known_hosts_path, bool copy_keys,
               const std::string& destination_dir);

  /// "ssh -i KEY ... root@NODE "
  std::string Prefix() const;
  /// Whether key files are copied to the node: requested, and the node is not this host.
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

/// Adds the new public key on one node, and copies the key files to it if requested; the body of a
/// thread. When a step fails, the earlier steps are undone and the node's state becomes kError;
/// nothing is thrown.
class BREFIR_API NodeApplySshkeyThread : public SshKeyThread {
 public:
  /// `info` and `watch` must outlive the object. Throws what IsLocal throws, except "check_local":
  /// that makes the node fail when the thread runs.
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

/// Restores the files of one node; the body of a thread. A failure is logged, and `info.replaced`
/// stays set.
class BREFIR_API NodeRollbackSshkeyThread : public SshKeyThread {
 public:
  /// `info` must outlive the object.
  NodeRollbackSshkeyThread(ThreadInfo& info, const std::string& ssh_key_path,
                           const std::string& private_key_path, const std::string& public_key_path,
                           const std::string& known_hosts_path, bool copy_keys,
                           const std::string& destination_dir);
  void operator()();

  /// Restores the files without a transaction. Throws "rollback_keys" (parameter "exitcode").
  void Restore() const;
};

/// Makes a file on a node; a rollback tries to remove it.
class BREFIR_API SaveToRemoteFileJob : public pnl_job::SafeJob {
 public:
  /// `info` is the record of the node; it must outlive the transaction. With null, the job uses
  /// kUndoTime for itself.
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

/// Makes the key pair as a job of the calling thread's transaction; the transaction owns the job.
class BREFIR_API SshKeyGenerator {
 public:
  /// Throws as CreateSshKeysJob does. `third_path` is kept for the caller.
  SshKeyGenerator(const std::string& public_key_path, const std::string& private_key_path,
                  const std::string& third_path);

  /// Valid until the transaction ends.
  const CreateSshKeysJob& KeyPair() const { return *key_pair_; }

  /// Adds a public key to root's authorized keys on all nodes, or on none.
  ///
  /// The constructor starts one thread per node, without limit, and waits for all. When a thread
  /// cannot be started, no further one is started. When a node fails, all started nodes are
  /// restored and "copy_ssh_keys" is thrown. Its parameter "nodes" lists the failed nodes. Its
  /// parameter "not_restored" lists the nodes whose authorized keys were replaced, or may have
  /// been, and could not be restored; it is absent when there are none. A later rollback of the
  /// transaction restores all nodes too and logs failures (level 3). Each running node takes a
  /// thread, an ssh(1) process without terminal and input, and about four descriptors.
  ///
  /// A node with a file of more than kMaxAuthorizedKeys bytes fails ("proc", "output").
  ///
  /// On each node /root/.ssh/authorized_keys is copied to ".old" and replaced by a rename: it is
  /// always the old file, or the old file with the new key. To restore, ".old" is renamed over it.
  /// The caller must guard against three things. On a node that failed before its copy was made, a
  /// ".old" of an earlier run is restored. A part of the file that the node's cat(1) cannot read is
  /// missing from the new file. With `copy_keys`, a node that had no key files before keeps the new
  /// ones, even the private key, because they have no ".old".
  ///
  /// A node that refuses a connection, for example because of sshd's MaxStartups, has failed.
  /// Removing the new files on it, and then restoring, are each tried again for kUndoTime. When
  /// this host has no room for another process or its pipes, restoring waits until another ssh(1)
  /// of the distribution has ended.
  ///
  /// An ssh(1) that runs longer than 120 s is ended and counts as failed. Whether a node is this
  /// host is tested for one node after the other: an address that does not answer costs 120 s and
  /// makes its node fail; a rollback costs the same again.
  class BREFIR_API ApplySshKeysToRemoteNodesJob : public pnl_job::SafeJob {
   public:
    explicit ApplySshKeysToRemoteNodesJob(const Rollout& rollout);
    /// The same with separate parameters; `spare_path` is kept for the caller.
    ApplySshKeysToRemoteNodesJob(
        const std::vector<std::string>& nodes, const std::string& private_key_path,
        const std::string& public_key_path, const std::string& new_private_key_path,
        const std::string& spare_path, const std::string& new_private_key_text,
        const std::string& new_public_key_text, const std::string& known_hosts_path, bool copy_keys,
        const std::string& destination_dir, RolloutWatch watch = {});
    ~ApplySshKeysToRemoteNodesJob() override;

    bool Done() const { return done_; }  ///< whether every node is kFinished

   protected:
    void onRollback() override;

   private:
    /// Stops at the first node that cannot be started, and returns it.
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
