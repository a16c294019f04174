#include "brefir/sshkey_generate.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace ssh_gen {
namespace {

pnl_log::Module log_module("sshkey_generate");

constexpr int kRandomNames = 100;
constexpr int kSshTimeout = 120;  // seconds
constexpr int kUndoTries = 10;
constexpr int kUndoPause = 300;              // milliseconds between them
constexpr std::chrono::seconds kRefusal{2};  // what takes longer is none
constexpr std::size_t kSuffix = 8;           // random bytes of a temporary name
constexpr std::size_t kProbe = 12;           // random bytes that only this host has
constexpr int kCouldNotRun = 255;            // as ssh(1) itself says that it failed
constexpr int kKilled = 128;                 // and more: by the signal of that number above it

// --- ssh

/// Without terminal, and without input unless `input` is given: nothing can wait for a password.
int Ssh(const std::string& command, const std::string* input = nullptr) {
  pnl_proc::Execute ssh(command,
                        pnl_proc::kOwnSession | (input == nullptr ? pnl_proc::kNoInput : 0));
  ssh.SetTimeout(kSshTimeout);
  if (input == nullptr) return ssh.Result();
  const bool sent = static_cast<bool>(ssh.In() << *input << std::flush);
  const int code = ssh.Result();
  return sent || code != 0 ? code : kCouldNotRun;
}

/// The same where a failure to run, or to end in time, is one failure more.
int SshCode(const std::string& command, const std::string* input = nullptr) {
  try {
    return Ssh(command, input);
  } catch (const pnl_err::Error& error) {
    PNL_LOG(log_module, 3, "%s", error.what());
    return kCouldNotRun;
  }
}

/// For what has to be undone: tried again where this host has no room for one more process, or the
/// node for one more connection (MaxStartups in sshd_config(5)). That shows at once; a node that is
/// waited for is not there.
int SshAgainAndAgain(const std::string& command) {
  int code = kCouldNotRun;
  for (int tries = 0; tries < kUndoTries && code == kCouldNotRun; ++tries) {
    if (tries > 0) pnl_proc::Sleep(kUndoPause);
    const auto start = std::chrono::steady_clock::now();
    code = SshCode(command);
    if (std::chrono::steady_clock::now() - start >= kRefusal) break;
  }
  return code;
}

struct Answer {
  std::string output;
  int code;
};

Answer Ask(const std::string& command) {
  pnl_proc::Execute ssh(command, pnl_proc::kOwnSession | pnl_proc::kNoInput);
  ssh.SetTimeout(kSshTimeout);
  std::string output = ssh.Str();
  const int code = ssh.Result();
  if (code != 0) PNL_LOG(log_module, 3, "'%s': exit code %d", command.c_str(), code);
  return {std::move(output), code};
}

std::string Quoted(const std::string& commands) {
  return "'" + commands + "'";
}

/// A failed step, with ssh's exit code for those who have to find out why.
pnl_err::Error Failed(pnl_err::Error error, int code) {
  return error.add_param("exitcode", std::to_string(code));
}

// --- Paths

std::string Absolute(const std::string& dir) {
  if (dir.empty() || dir.front() == '/') return dir;
  return pnl_file::ConcatPath(pnl_file::GetCurrentDir(), dir);
}

std::string Backup(const std::string& path) {
  return path + ".old";
}
std::string New(const std::string& path) {
  return path + ".new";
}

std::string RandomHex(std::size_t bytes) {
  return str::hex::Encode(str::Random(bytes));
}

/// cp(1) keeps the mode of a file that it overwrites, and gives a new one that of its source: the
/// target is there before it, closed to others.
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

/// Synced, as the file is going to replace a key.
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
  temporary_public_key_path_ = temporary_private_key_path_ + ".pub";
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

SshKeyThread::SshKeyThread(const ThreadInfo& info, const std::string& ssh_key_path,
                           const std::string& private_key_path, const std::string& public_key_path,
                           const std::string& known_hosts_path, bool copy_keys,
                           const std::string& destination_dir, Unanswered unanswered)
    : id_(info.id),
      node_(info.node),
      ssh_key_path_(ssh_key_path),
      local_private_key_path_(private_key_path),
      local_public_key_path_(public_key_path),
      remote_private_key_path_(private_key_path),
      remote_public_key_path_(public_key_path),
      known_hosts_path_(known_hosts_path),
      copy_keys_(copy_keys),
      destination_dir_(destination_dir) {
  try {
    local_ = IsLocal();
  } catch (const pnl_err::Error& error) {
    if (unanswered == Unanswered::kThrow) throw;
    PNL_LOG(log_module, 3, "%s", error.what());
  }
  if (copy_keys_) ChooseRemotePaths();
}

bool SshKeyThread::IsLocal() {
  PNL_ENTRY(log_module);
  const std::string text = RandomHex(kProbe);
  pnl_file::Tmp file("/tmp/check-local");
  file.Write(text);
  return Ask(Prefix() + "cat " + file.Str()).output == text;
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

NodeApplySshkeyThread::NodeApplySshkeyThread(ThreadInfo& info, const std::string& private_key_path,
                                             const std::string& public_key_path,
                                             const std::string& known_hosts_path, bool copy_keys,
                                             const std::string& destination_dir,
                                             const std::string& new_private_key,
                                             const std::string& new_public_key,
                                             const RolloutWatch& watch)
    : SshKeyThread(info, private_key_path, private_key_path, public_key_path, known_hosts_path,
                   copy_keys, destination_dir, Unanswered::kThrow),
      state_(&info.state),
      new_private_key_(new_private_key),
      new_public_key_(new_public_key),
      watch_(&watch) {}

void NodeApplySshkeyThread::operator()() {
  PNL_ENTRY(log_module);
  PNL_TRACE(log_module, "copy ssh keys to '%s'", node_.c_str());
  try {
    SetState("RUNNING");
    PNL_TRACE(log_module, "id='%s', State='%s'", id_.c_str(), state_->c_str());
    PNL_TRACE(log_module, "ssh command = '%s'", Prefix().c_str());
    Distribute();
    pnl_job::Commit();
    SetState("FINISHED");
  } catch (const std::exception& error) {
    SetState("ERROR", error.what());
    PNL_TRACE(log_module, "State='%s'", state_->c_str());
    pnl_job::Rollback();
  }
}

void NodeApplySshkeyThread::SetState(const char* state, const std::string& reason) {
  *state_ = state;
  if (!reason.empty()) PNL_LOG(log_module, 3, "%s: %s", node_.c_str(), reason.c_str());
  if (watch_->changed) watch_->changed(node_, state, reason);
}

void NodeApplySshkeyThread::Distribute() const {
  ThrowIfStopped();
  auto [keys, code] = Ask(Prefix() + Quoted(std::string("cat ") + kAuthorizedKeys));
  // A cat that fails has no file to read; where ssh fails or is killed, nobody knows what there is
  // to be kept.
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
  if (watch_->stop && watch_->stop()) throw pnl_err::Error("interrupted");
}

void NodeApplySshkeyThread::Save(const std::string& path, const std::string& text) const {
  ThrowIfStopped();
  // NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks): the transaction owns it
  new SaveToRemoteFileJob(Prefix(), path);
  const int code = SshCode(Prefix() + " " + Quoted("cat > " + path), &text);
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
  const int code = SshCode(Prefix() + Quoted(commands + " " + copy(kAuthorizedKeys)));
  if (code == 0) return;
  // NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks): the transaction owns it
  // What a full disk left of the copy would be put back over the whole file.
  new SaveToRemoteFileJob(Prefix(), Backup(kAuthorizedKeys));
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
  const int code = SshCode(Prefix() + Quoted(commands + " " + move(kAuthorizedKeys)));
  if (code != 0) throw Failed(pnl_err::Error("move_files"), code);
}

SaveToRemoteFileJob::SaveToRemoteFileJob(std::string ssh_prefix, std::string path)
    : prefix_(std::move(ssh_prefix)), path_(std::move(path)) {}

SaveToRemoteFileJob::~SaveToRemoteFileJob() = default;

void SaveToRemoteFileJob::onRollback() {
  const int code = SshAgainAndAgain(prefix_ + " rm -f " + path_);
  if (code != 0) PNL_LOG(log_module, 3, "'%s' may still be there", path_.c_str());
}

// --- Putting a node back

NodeRollbackSshkeyThread::NodeRollbackSshkeyThread(
    const ThreadInfo& info, const std::string& ssh_key_path, const std::string& private_key_path,
    const std::string& public_key_path, const std::string& known_hosts_path, bool copy_keys,
    const std::string& destination_dir)
    : SshKeyThread(info, ssh_key_path, private_key_path, public_key_path, known_hosts_path,
                   copy_keys, destination_dir, Unanswered::kRemote) {}

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
  const std::string command = Prefix() + Quoted(commands + " " + move(kAuthorizedKeys));
  const int code = SshAgainAndAgain(command);
  if (code != 0) throw Failed(pnl_err::Error("rollback_keys"), code);
}

// --- All nodes

namespace {

/// A node on its way back: on a thread of its own or, where the system has none left, on the
/// caller's.
class Restoring {
 public:
  explicit Restoring(NodeRollbackSshkeyThread body)
      : body_(std::move(body)), thread_(std::ref(body_)) {}

  void Start() {
    try {
      thread_.Start();
      started_ = true;
    } catch (const pnl_err::Error& error) {
      PNL_LOG(log_module, 3, "%s", error.what());
    }
  }

  void Join() {
    thread_.join();
    if (started_) return;
    try {
      body_.Restore();  // not as a thread does it: the caller's transaction goes on
    } catch (const std::exception& error) {
      PNL_LOG(log_module, 3, "%s", error.what());
    }
  }

 private:
  NodeRollbackSshkeyThread body_;
  pnl_thread::Handle thread_;
  bool started_ = false;
};

}  // namespace

SshKeyGenerator::SshKeyGenerator(const std::string& public_key_path,
                                 const std::string& private_key_path, const std::string& third_path)
    : public_key_path_(public_key_path),
      private_key_path_(private_key_path),
      third_path_(third_path),
      key_pair_(new CreateSshKeysJob(public_key_path_, private_key_path_)) {}

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
    if (info->state == "ERROR") failed = str::Append(failed, info->node, ",");
  }
  if (failed.empty()) {
    done_ = true;
    return;
  }
  SafeJob::Rollback();
  throw pnl_err::Error("copy_ssh_keys").add_param("nodes", failed);
}

SshKeyGenerator::ApplySshKeysToRemoteNodesJob::~ApplySshKeysToRemoteNodesJob() = default;

std::string SshKeyGenerator::ApplySshKeysToRemoteNodesJob::BeginAll(
    const std::vector<std::string>& nodes) {
  threads_.reserve(nodes.size());  // no failure between a start and the record of it
  for (const std::string& node : nodes) {
    try {
      Begin(node);
    } catch (const std::exception& error) {
      PNL_LOG(log_module, 3, "%s: %s", node.c_str(), error.what());
      if (watch_.changed) watch_.changed(node, "ERROR", error.what());
      return node;
    }
  }
  return "";
}

void SshKeyGenerator::ApplySshKeysToRemoteNodesJob::Begin(const std::string& node) {
  if (watch_.stop && watch_.stop()) throw pnl_err::Error("interrupted");
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
    const std::string& key = info->state == "ERROR" ? private_key_path_ : new_private_key_path_;
    nodes.push_back(std::make_unique<Restoring>(
        NodeRollbackSshkeyThread(*info, key, private_key_path_, public_key_path_, known_hosts_path_,
                                 copy_keys_, destination_dir_)));
    nodes.back()->Start();
  }
  for (const auto& node : nodes) node->Join();
}

}  // namespace ssh_gen
