#include "brefir/sshkey_generate.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>

#include "brefir/guarded.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace ssh_gen {
namespace {

pnl_log::Module log_module("sshkey_generate");

constexpr int kRandomNames = 100;
constexpr int kSshTimeout = 120;                  // seconds
constexpr std::chrono::milliseconds kPause{300};  // between tries to undo
constexpr std::size_t kSuffix = 8;                // random bytes of a temporary name
constexpr std::size_t kProbe = 12;                // random bytes that only this host has
constexpr int kCouldNotRun = 255;                 // exit code of ssh(1) for its own failures
constexpr int kKilled = 128;                      // + n: ended by signal n
constexpr const char* kProbeFailed = "check_local";

// --- ssh

/// Counts the running and the ended ssh(1) of this process.
class Crowd {
 public:
  void Enter() {
    const std::lock_guard guard(mutex_);
    ++at_work_;
  }
  void Leave() {
    const std::lock_guard guard(mutex_);
    --at_work_;
    ++ended_;
    changed_.notify_all();
  }
  std::uint64_t Ended() {
    const std::lock_guard guard(mutex_);
    return ended_;
  }
  /// Waits until more than `ended` have ended. False when none is running.
  bool WaitForOneMore(std::uint64_t ended) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return ended_ > ended || at_work_ == 0; });
    return ended_ > ended;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t at_work_ = 0;
  std::uint64_t ended_ = 0;
};

Crowd crowd;

/// One ssh(1) without a terminal, and without input unless there is some to send: nothing can wait
/// for a password.
class Run {
 public:
  explicit Run(const std::string& command, const std::string* input = nullptr)
      : ssh_(command, pnl_proc::kOwnSession | (input == nullptr ? pnl_proc::kNoInput : 0)),
        input_(input) {
    ssh_.SetTimeout(kSshTimeout);
    place_.Take();
  }

  std::string Output() { return ssh_.Str(kMaxAuthorizedKeys); }

  int Code() {
    const bool sent = input_ == nullptr || static_cast<bool>(ssh_.In() << *input_ << std::flush);
    const int code = ssh_.Result();
    return sent || code != 0 ? code : kCouldNotRun;
  }

 private:
  class Place {
   public:
    Place() = default;
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    ~Place() {
      if (taken_) crowd.Leave();
    }
    void Take() {
      crowd.Enter();
      taken_ = true;
    }

   private:
    bool taken_ = false;
  };

  Place place_;  // released after the descriptors
  pnl_proc::Execute ssh_;
  const std::string* input_;
};

/// A failure to run, or to end in time, counts as an ordinary failure.
template <class Work>
int CodeOf(const Work& work) {
  try {
    return work();
  } catch (const pnl_err::Error& error) {
    PNL_LOG(log_module, 3, "%s", error.what());
    return kCouldNotRun;
  }
}

int SshCode(const std::string& command, const std::string* input = nullptr) {
  return CodeOf([&] { return Run(command, input).Code(); });
}

struct Answer {
  std::string output;
  int code;
};

Answer Ask(const std::string& command) {
  Run ssh(command);
  std::string output = ssh.Output();
  return {std::move(output), ssh.Code()};
}

// --- Undoing

using Clock = std::chrono::steady_clock;

/// Whether this host has no room for another process or its pipes at the moment.
bool IsShortage(const pnl_err::Error& error) {
  const int number = error.code();
  return number == EMFILE || number == ENFILE || number == EAGAIN || number == ENOMEM;
}

/// Null when this host has no room for it.
std::unique_ptr<Run> TryToStart(const std::string& command) {
  static std::mutex one_by_one;  // several half-started ones would block each other
  const std::lock_guard guard(one_by_one);
  try {
    return std::make_unique<Run>(command);
  } catch (const pnl_err::Error& error) {
    if (!IsShortage(error)) throw;
    PNL_LOG(log_module, 4, "%s", error.what());
    return nullptr;
  }
}

/// Starts it as soon as this host has room. Other running ones free their room when they end. When
/// none is running, waits some time for other processes of this host, then returns null.
std::unique_ptr<Run> StartWhenThereIsRoom(const std::string& command) {
  Clock::duration alone{};
  while (true) {
    const std::uint64_t ended = crowd.Ended();
    std::unique_ptr<Run> ssh = TryToStart(command);
    if (ssh != nullptr || alone >= kUndoTime) return ssh;
    if (crowd.WaitForOneMore(ended)) continue;
    pnl_proc::Sleep(static_cast<int>(kPause.count()));
    alone += kPause;
  }
}

/// Runs a command that undoes something. Tries again for `patience` when the node does not answer:
/// it may refuse another connection (MaxStartups in sshd_config(5)). Waiting for room on this host
/// does not count.
int Undo(const std::string& command, std::chrono::milliseconds& patience) {
  while (true) {
    Clock::time_point begun;
    const int code = CodeOf([&] {
      const std::unique_ptr<Run> ssh = StartWhenThereIsRoom(command);
      if (ssh == nullptr) return kCouldNotRun;
      begun = Clock::now();
      return ssh->Code();
    });
    if (code < kKilled || begun == Clock::time_point()) return code;
    patience -=
        kPause + std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun);
    if (patience.count() <= 0) return code;
    pnl_proc::Sleep(static_cast<int>(kPause.count()));
  }
}

/// Puts commands in single quotes for the local shell. They are not escaped: only the paths vary,
/// and a path with a quote is refused, because it could run other commands on this host.
std::string QuotedAsTheyAre(const std::string& commands) {
  if (commands.find('\'') != std::string::npos) throw pnl_err::Access("command", commands);
  return "'" + commands + "'";
}

/// The error of a failed step, with the exit code of ssh.
pnl_err::Error Failed(pnl_err::Error error, int code) {
  return error.add_param("exitcode", std::to_string(code));
}

// --- Paths

std::string Absolute(const std::string& dir) {
  if (dir.empty() || dir.front() == '/') return dir;
  return pnl_file::ConcatPath(pnl_file::GetCurrentDir(), dir);
}

std::string Backup(const std::string& path) {
  return path + kOld;
}
std::string New(const std::string& path) {
  return path + kNew;
}

std::string RandomHex(std::size_t bytes) {
  return str::hex::Encode(str::Random(bytes));
}

/// cp(1) keeps the mode of an existing target, but gives a new one the mode of the source.
/// Therefore the target is made first, closed to others.
void PrepareSecretBackup(const std::string& path) {
  if (!pnl_file::Exists(path)) return;
  const std::string backup = Backup(path);
  const pnl_file::Fd fd =
      pnl_file::Open(backup, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK, pnl_file::kSecretMode);
  if (fchmod(fd.Get(), pnl_file::kSecretMode) != 0) throw pnl_err::System("chmod", backup, errno);
}

void SyncFile(const std::string& path) {
  pnl_file::Sync(pnl_file::Open(path, O_RDONLY).Get(), path);
}

bool CopyToBackup(const std::string& path) {
  return pnl_proc::Execute("cp " + path + " " + Backup(path)).Result() == 0;
}

void BackUpKeys(const std::string& private_key_path, const std::string& public_key_path) {
  try {
    PrepareSecretBackup(private_key_path);
    if (CopyToBackup(private_key_path) && CopyToBackup(public_key_path)) {
      SyncFile(Backup(private_key_path));
      SyncFile(Backup(public_key_path));
      return;
    }
  } catch (const pnl_err::Error& error) {
    PNL_LOG(log_module, 3, "%s", error.what());
  }
  throw pnl_err::Error("backup_ssh_keys");
}

/// Synced, because the file will replace a key.
std::string ReadKey(const std::string& path) {
  SyncFile(path);
  return pnl_file::Read(path);
}

}  // namespace

// --- The key pair

CreateSshKeysJob::CreateSshKeysJob(const std::string& public_key_path,
                                   const std::string& private_key_path)
    : public_key_path_(public_key_path), private_key_path_(private_key_path) {
  BackUpKeys(private_key_path_, public_key_path_);
  temporary_private_key_path_ = RandomizeFilename(private_key_path_);
  temporary_public_key_path_ = temporary_private_key_path_ + kPublic;
  const int code =
      pnl_proc::Execute("ssh-keygen -t rsa -q -f " + temporary_private_key_path_ + " -N ''",
                        pnl_proc::kOwnSession | pnl_proc::kNoInput)
          .Result();
  if (code != 0) {
    throw pnl_err::Error("ssh_keygen_fail", "", temporary_private_key_path_)
        .add_param("errorcode", std::to_string(code));
  }
  temporary_private_key_value_ = ReadKey(temporary_private_key_path_);
  temporary_public_key_value_ = ReadKey(temporary_public_key_path_);
}

CreateSshKeysJob::~CreateSshKeysJob() = default;

std::string CreateSshKeysJob::TemporaryPrivateKeyPath() const {
  return temporary_private_key_path_;
}
std::string CreateSshKeysJob::TemporaryPublicKeyPath() const {
  return temporary_public_key_path_;
}
std::string CreateSshKeysJob::TemporaryPrivateKeyValue() const {
  return temporary_private_key_value_;
}
std::string CreateSshKeysJob::TemporaryPublicKeyValue() const {
  return temporary_public_key_value_;
}

std::string CreateSshKeysJob::RandomizeFilename(const std::string& path) const {
  for (int i = 0; i < kRandomNames; ++i) {
    std::string candidate = path + "." + RandomHex(kSuffix);
    if (!pnl_file::Exists(candidate)) return candidate;
  }
  throw pnl_err::Error("randomize_filename_fail", "");
}

void CreateSshKeysJob::onCommit() {
  // Each Move is one rename(2): the path of a key is never empty.
  pnl_file::Move(temporary_private_key_path_, private_key_path_);
  pnl_file::Move(temporary_public_key_path_, public_key_path_);
  if (chmod(private_key_path_.c_str(), pnl_file::kSecretMode) != 0)
    PNL_LOG(log_module, 3, "chmod '%s': errno %d", private_key_path_.c_str(), errno);
}

void CreateSshKeysJob::onRollback() {
  pnl_file::RemoveFile(temporary_private_key_path_);
  pnl_file::RemoveFile(temporary_public_key_path_);
}

// --- One node

SshKeyThread::SshKeyThread(ThreadInfo& info, const std::string& ssh_key_path,
                           const std::string& private_key_path, const std::string& public_key_path,
                           const std::string& known_hosts_path, bool copy_keys,
                           const std::string& destination_dir)
    : id_(info.id),
      node_(info.node),
      ssh_key_path_(ssh_key_path),
      local_private_key_path_(private_key_path),
      local_public_key_path_(public_key_path),
      remote_private_key_path_(private_key_path),
      remote_public_key_path_(public_key_path),
      known_hosts_path_(known_hosts_path),
      copy_keys_(copy_keys),
      destination_dir_(destination_dir),
      local_(info.local),
      info_(&info) {
  try {
    local_ = IsLocal();
  } catch (const pnl_err::Error& error) {
    PNL_LOG(log_module, 3, "%s: %s", node_.c_str(), error.what());
    unanswered_ = error;
  }
  if (copy_keys_) ChooseRemotePaths();
}

bool SshKeyThread::IsLocal() {
  PNL_ENTRY(log_module);
  const std::string text = RandomHex(kProbe);
  pnl_file::Tmp file("/tmp/check-local");
  file.Write(text);
  // Another host has no such file: a failing cat is the answer "no".
  const Answer answer = Ask(Prefix() + "cat " + file.Str());
  if (answer.code >= kKilled)
    throw Failed(pnl_err::Error(kProbeFailed, "", file.Str()), answer.code);
  return answer.output == text;
}

void SshKeyThread::ChooseRemotePaths() {
  destination_dir_ = Absolute(destination_dir_);
  const std::string dir =
      local_ ? Absolute(pnl_file::Folder(local_private_key_path_)) : destination_dir_;
  if (dir.empty()) return;
  remote_private_key_path_ = pnl_file::ConcatPath(dir, pnl_file::Name(local_private_key_path_));
  remote_public_key_path_ = pnl_file::ConcatPath(dir, pnl_file::Name(local_public_key_path_));
}

std::string SshKeyThread::Prefix() const {
  std::string options;
  if (!known_hosts_path_.empty())
    options = " -o StrictHostKeyChecking=no -o UserKnownHostsFile=" + known_hosts_path_;
  return "ssh -i " + ssh_key_path_ + options + " root@" + node_ + " ";
}

// --- Adding the key

namespace {

constexpr const char* kWatcherFailed = "a watcher of the distribution failed";

void Tell(const RolloutWatch& watch, const std::string& node, const std::string& state,
          const std::string& reason) {
  utils::Guarded(log_module, kWatcherFailed, [&] {
    if (watch.changed) watch.changed(node, state, reason);
  });
}

bool IsStopped(const RolloutWatch& watch) {
  bool stopped = false;
  utils::Guarded(log_module, kWatcherFailed, [&] { stopped = watch.stop && watch.stop(); });
  return stopped;
}

}  // namespace

NodeApplySshkeyThread::NodeApplySshkeyThread(ThreadInfo& info, const std::string& private_key_path,
                                             const std::string& public_key_path,
                                             const std::string& known_hosts_path, bool copy_keys,
                                             const std::string& destination_dir,
                                             const std::string& new_private_key,
                                             const std::string& new_public_key,
                                             const RolloutWatch& watch)
    : SshKeyThread(info, private_key_path, private_key_path, public_key_path, known_hosts_path,
                   copy_keys, destination_dir),
      state_(&info.state),
      new_private_key_(new_private_key),
      new_public_key_(new_public_key),
      watch_(&watch) {
  // A node that does not answer fails, as at any other step. When this host cannot run ssh, or an
  // address does not answer at all, the following nodes would fail too: this ends the distribution.
  if (unanswered_ && unanswered_->type() != kProbeFailed) throw *unanswered_;
  info.local = local_;
}

void NodeApplySshkeyThread::operator()() {
  PNL_ENTRY(log_module);
  PNL_TRACE(log_module, "copy ssh keys to '%s'", node_.c_str());
  try {
    SetState(kRunning);
    PNL_TRACE(log_module, "id='%s', State='%s'", id_.c_str(), state_->c_str());
    PNL_TRACE(log_module, "ssh command = '%s'", Prefix().c_str());
    Distribute();
    pnl_job::Commit();
    SetState(kFinished);
  } catch (const std::exception& error) {
    SetState(kError, error.what());
    PNL_TRACE(log_module, "State='%s'", state_->c_str());
    pnl_job::Rollback();
  }
}

void NodeApplySshkeyThread::SetState(const char* state, const std::string& reason) {
  *state_ = state;
  if (!reason.empty()) PNL_LOG(log_module, 3, "%s: %s", node_.c_str(), reason.c_str());
  Tell(*watch_, node_, state, reason);
}

void NodeApplySshkeyThread::Distribute() const {
  ThrowIfStopped();
  if (unanswered_) throw *unanswered_;
  auto [keys, code] = Ask(Prefix() + QuotedAsTheyAre(std::string("cat ") + kAuthorizedKeys));
  // When cat fails, there is no file. When ssh fails or is killed, the content to be kept is
  // unknown.
  if (code >= kKilled) {
    throw Failed(pnl_err::Error("read_remotefile", "", kAuthorizedKeys), code);
  }
  if (!keys.empty() && !keys.ends_with('\n')) keys += '\n';
  Save(New(kAuthorizedKeys), keys + new_public_key_ + "\n");
  if (PlacesKeys()) {
    Save(New(remote_public_key_path_), new_public_key_);
    Save(New(remote_private_key_path_), new_private_key_);
  }
  BackUp();
  Replace();
}

void NodeApplySshkeyThread::ThrowIfStopped() const {
  if (IsStopped(*watch_)) throw pnl_err::Error("interrupted");
}

void NodeApplySshkeyThread::Save(const std::string& path, const std::string& text) const {
  ThrowIfStopped();
  // NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks): the transaction owns it
  new SaveToRemoteFileJob(Prefix(), path, info_);
  const int code = SshCode(Prefix() + " " + QuotedAsTheyAre("cat > " + path), &text);
  if (code != 0) throw Failed(pnl_err::Error("save_remotefile", "", path), code);
  // NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)
}

void NodeApplySshkeyThread::BackUp() const {
  ThrowIfStopped();
  const auto copy = [](const std::string& path) { return "cp " + path + " " + Backup(path); };
  std::string commands;
  if (copy_keys_) {
    commands = " " + copy(remote_private_key_path_) + "; " + copy(remote_public_key_path_) + ";";
  }
  info_->backed_up = true;
  const int code = SshCode(Prefix() + QuotedAsTheyAre(commands + " " + copy(kAuthorizedKeys)));
  if (code == 0) return;
  // NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks): the transaction owns it An incomplete
  // copy on a full disk would be restored over the good file.
  new SaveToRemoteFileJob(Prefix(), Backup(kAuthorizedKeys), info_);
  throw Failed(pnl_err::Error("copy_files"), code);
  // NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)
}

void NodeApplySshkeyThread::Replace() const {
  ThrowIfStopped();
  const auto move = [](const std::string& path) { return "mv " + New(path) + " " + path; };
  std::string commands;
  if (PlacesKeys()) {
    commands = " " + move(remote_private_key_path_) + "; " + move(remote_public_key_path_) +
               "; chmod 600 " + remote_private_key_path_ + ";";
  }
  info_->replaced = true;
  const int code = SshCode(Prefix() + QuotedAsTheyAre(commands + " " + move(kAuthorizedKeys)));
  if (code != 0) throw Failed(pnl_err::Error("move_files"), code);
}

SaveToRemoteFileJob::SaveToRemoteFileJob(std::string ssh_prefix, std::string path, ThreadInfo* info)
    : prefix_(std::move(ssh_prefix)), path_(std::move(path)), info_(info) {}

SaveToRemoteFileJob::~SaveToRemoteFileJob() = default;

void SaveToRemoteFileJob::onRollback() {
  std::chrono::milliseconds own = kUndoTime;
  const int code = Undo(prefix_ + " rm -f " + path_, info_ == nullptr ? own : info_->patience);
  if (code != 0) PNL_LOG(log_module, 3, "'%s' may still be there", path_.c_str());
}

// --- Putting a node back

NodeRollbackSshkeyThread::NodeRollbackSshkeyThread(
    ThreadInfo& info, const std::string& ssh_key_path, const std::string& private_key_path,
    const std::string& public_key_path, const std::string& known_hosts_path, bool copy_keys,
    const std::string& destination_dir)
    : SshKeyThread(info, ssh_key_path, private_key_path, public_key_path, known_hosts_path,
                   copy_keys, destination_dir) {}

void NodeRollbackSshkeyThread::operator()() {
  try {
    Restore();
    pnl_job::Commit();
  } catch (const std::exception& error) {
    PNL_LOG(log_module, 3, "%s: %s", node_.c_str(), error.what());
    pnl_job::Rollback();
  }
}

void NodeRollbackSshkeyThread::Restore() const {
  const auto move = [](const std::string& path) { return "mv " + Backup(path) + " " + path; };
  std::string commands;
  if (copy_keys_) {
    commands = " " + move(remote_private_key_path_) + "; " + move(remote_public_key_path_) + ";";
  }
  // A ".old" that must be removed gets the time that the other removals have left.
  if (info_->replaced) info_->patience = kUndoTime;
  if (!info_->backed_up) info_->patience = {};
  const int code =
      Undo(Prefix() + QuotedAsTheyAre(commands + " " + move(kAuthorizedKeys)), info_->patience);
  if (code != 0) throw Failed(pnl_err::Error("rollback_keys"), code);
  info_->replaced = false;
}

// --- All nodes

namespace {

/// Restores a node on a thread of its own; on the caller's thread when the system has none left.
class Restoring {
 public:
  explicit Restoring(NodeRollbackSshkeyThread body)
      : body_(std::move(body)), thread_(std::ref(body_)) {}

  /// False when the system refuses a thread. May be called again.
  bool Start() {
    if (begun_) return true;
    try {
      thread_.Start();
      return begun_ = true;
    } catch (const pnl_err::Error& error) {
      PNL_LOG(log_module, 3, "%s", error.what());
      return false;
    }
  }

  void Join() {
    thread_.join();
    if (std::exchange(begun_, true)) return;
    try {
      body_.Restore();  // not the thread body: the caller's transaction goes on
    } catch (const std::exception& error) {
      PNL_LOG(log_module, 3, "%s", error.what());
    }
  }

 private:
  NodeRollbackSshkeyThread body_;
  pnl_thread::Handle thread_;
  bool begun_ = false;
};

}  // namespace

SshKeyGenerator::SshKeyGenerator(const std::string& public_key_path,
                                 const std::string& private_key_path, const std::string& third_path)
    : public_key_path_(public_key_path),
      private_key_path_(private_key_path),
      third_path_(third_path),
      key_pair_(new CreateSshKeysJob(public_key_path_, private_key_path_)) {}

SshKeyGenerator::ApplySshKeysToRemoteNodesJob::ApplySshKeysToRemoteNodesJob(const Rollout& rollout)
    : ApplySshKeysToRemoteNodesJob(rollout.nodes, rollout.private_key_path, rollout.public_key_path,
                                   rollout.new_private_key_path, "", rollout.new_private_key_text,
                                   rollout.new_public_key_text, rollout.known_hosts_path,
                                   rollout.copy_keys, rollout.destination_dir, rollout.watch) {}

SshKeyGenerator::ApplySshKeysToRemoteNodesJob::ApplySshKeysToRemoteNodesJob(
    const std::vector<std::string>& nodes, const std::string& private_key_path,
    const std::string& public_key_path, const std::string& new_private_key_path,
    const std::string& spare_path, const std::string& new_private_key_text,
    const std::string& new_public_key_text, const std::string& known_hosts_path, bool copy_keys,
    const std::string& destination_dir, RolloutWatch watch)
    : private_key_path_(private_key_path),
      public_key_path_(public_key_path),
      spare_path_(spare_path),
      new_private_key_path_(new_private_key_path),
      new_private_key_text_(new_private_key_text),
      new_public_key_text_(new_public_key_text),
      known_hosts_path_(known_hosts_path),
      copy_keys_(copy_keys),
      destination_dir_(destination_dir),
      watch_(std::move(watch)) {
  std::string failed = BeginAll(nodes);
  for (const auto& info : threads_) {
    info->thread->join();
    PNL_TRACE(log_module, "join -> state='%s'", info->state.c_str());
    if (info->state == kError) failed = str::Append(failed, info->node, ",");
  }
  if (failed.empty()) {
    done_ = true;
    return;
  }
  SafeJob::Rollback();
  pnl_err::Error error(kCopyFailed);
  error.add_param("nodes", failed);
  if (const std::string changed = NotRestored(); !changed.empty())
    error.add_param("not_restored", changed);
  throw error;
}

SshKeyGenerator::ApplySshKeysToRemoteNodesJob::~ApplySshKeysToRemoteNodesJob() = default;

std::string SshKeyGenerator::ApplySshKeysToRemoteNodesJob::BeginAll(
    const std::vector<std::string>& nodes) {
  threads_.reserve(nodes.size());  // so that storing a started thread cannot fail
  for (const std::string& node : nodes) {
    try {
      Begin(node);
    } catch (const std::exception& error) {
      PNL_LOG(log_module, 3, "%s: %s", node.c_str(), error.what());
      Tell(watch_, node, kError, error.what());
      return node;
    }
  }
  return "";
}

void SshKeyGenerator::ApplySshKeysToRemoteNodesJob::Begin(const std::string& node) {
  if (IsStopped(watch_)) throw pnl_err::Error("interrupted");
  auto info = std::make_shared<ThreadInfo>();
  info->id = std::to_string(threads_.size() + 1);
  info->node = node;
  info->thread = std::make_shared<pnl_thread::Handle>(NodeApplySshkeyThread(
      *info, private_key_path_, public_key_path_, known_hosts_path_, copy_keys_, destination_dir_,
      new_private_key_text_, new_public_key_text_, watch_));
  info->thread->Start();
  threads_.push_back(std::move(info));
}

void SshKeyGenerator::ApplySshKeysToRemoteNodesJob::onRollback() {
  std::vector<std::unique_ptr<Restoring>> nodes;
  for (const auto& info : threads_) {
    const std::string& key = info->state == kError ? private_key_path_ : new_private_key_path_;
    nodes.push_back(std::make_unique<Restoring>(
        NodeRollbackSshkeyThread(*info, key, private_key_path_, public_key_path_, known_hosts_path_,
                                 copy_keys_, destination_dir_)));
    nodes.back()->Start();
  }
  for (const auto& node : nodes) {
    node->Join();
    for (const auto& late : nodes) {  // after each end there is a free thread
      if (!late->Start()) break;
    }
  }
  if (const std::string changed = NotRestored(); !changed.empty())
    PNL_LOG(log_module, 3, "not restored: %s", changed.c_str());
}

std::string SshKeyGenerator::ApplySshKeysToRemoteNodesJob::NotRestored() const {
  std::string names;
  for (const auto& info : threads_) {
    if (info->replaced) names = str::Append(names, info->node, ",");
  }
  return names;
}

}  // namespace ssh_gen
