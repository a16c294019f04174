#include "pnl/task.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <initializer_list>

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/layout.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "pnl/retry.h"
#include "pnl/spawn.h"
#include "pnl/str.h"
#include "pnl/test.h"
#include "pnl/utf8.h"

namespace pnl_task {

namespace {

pnl_log::Module log_module("task");

constexpr std::string_view kState = ".task";
constexpr std::string_view kLog = ".log";
constexpr std::string_view kExit = ".exit";
constexpr std::string_view kProgress = ".progress";
constexpr std::string_view kLock = ".lock";

constexpr const char* kProgressVariable = "PNL_TASK_PROGRESS";

// The first shell leads the session and exits at once, so that the caller has no child to wait for.
// The supervisor in the background goes on. Only it keeps descriptor 3, the lock, until the exit
// code is written or it is killed. It traps no signals: a signal to the group must end the task at
// any moment, even before the program has started.
constexpr const char* kSupervisor = R"(state=$1
shift
{
  PNL_TASK_PROGRESS=$state.progress "$@" 3>&-
  echo $? >"$state.exit.tmp" && mv -f "$state.exit.tmp" "$state.exit"
} &)";
constexpr int kLockDescriptor = 3;

std::string PathOf(const std::string& id, std::string_view suffix) {
  return pnl_file::ConcatPath(pnl_layout::kTaskDir, id + std::string(suffix));
}

// --- Texts in names and in the state file

// Encodes a text as part of a file name: readable for plain names, never ".", "..", hidden, or a
// path.
std::string EncodeName(std::string_view text) {
  std::string encoded = str::PercentEncode(text, [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' ||
           c == '-' || c == '.';
  });
  if (encoded.starts_with('.')) encoded.replace(0, 1, "%2E");
  return encoded;
}

// Encodes a text as a value of the state file, in one line.
std::string EncodeValue(std::string_view text) {
  return str::PercentEncode(text, [](char c) { return c >= ' ' && c <= '~' && c != '%'; });
}

std::string MakeId(const std::string& kind, const std::string& name) {
  constexpr std::size_t kLongest = 180;  // leaves room for suffixes in the 255 of a file name
  return str::Shorten(EncodeName(kind) + "@" + EncodeName(name), kLongest);
}

// --- The state file

std::string Describe(const Status& status) {
  std::string text = "format=1\n";
  const auto add = [&](const char* key, std::string_view value) {
    text += key + ("=" + EncodeValue(value)) + "\n";
  };
  add("kind", status.kind);
  add("name", status.name);
  add("program", status.program);
  for (const std::string& param : status.params) add("param", param);
  add("started", str::Str(status.started.Seconds()));
  return text;
}

// Unknown keys of later versions are ignored.
Status Parse(std::string_view text, const std::string& path) {
  Status status;
  bool complete = text.starts_with("format=1\n");
  for (std::string value; complete && !text.empty();) {
    std::string_view line = str::NextWord(text, '\n');
    const std::string_view key = str::NextWord(line, '=');
    complete = str::PercentDecode(line, value);
    if (key == "kind") status.kind = value;
    if (key == "name") status.name = value;
    if (key == "program") status.program = value;
    if (key == "param") status.params.push_back(value);
    if (key == "started") status.started = pnl_date::DateTime(std::time_t{str::Int64(value)});
  }
  if (!complete) throw pnl_err::Error("task", "format", path);
  return status;
}

// --- Progress

// "DONE TOTAL WHAT" in fixed width, so that each report covers the one before it in one write.
constexpr std::size_t kDigits = 20;
constexpr std::size_t kWhat = 2 * (kDigits + 1);
constexpr std::size_t kProgressSize = 192;

std::string ProgressLine(std::string_view what, std::uint64_t done, std::uint64_t total) {
  std::string line = str::Format("%020llu %020llu ", done, total) + std::string(what);
  std::replace_if(
      line.begin(), line.end(), [](unsigned char c) { return c < ' '; }, ' ');
  line.resize(utf8::Cut(line, kProgressSize - 1).size());
  line.resize(kProgressSize - 1, ' ');
  return line + "\n";
}

// An incomplete or malformed text is no progress.
void ReadProgress(Status& status) {
  const std::string line = pnl_file::Read(PathOf(status.id, kProgress));
  if (line.size() != kProgressSize || line.back() != '\n') return;
  const char* const begin = line.data();
  std::uint64_t done = 0;
  std::uint64_t total = 0;
  if (std::from_chars(begin, begin + kDigits, done).ptr != begin + kDigits) return;
  const char* const second = begin + kDigits + 1;
  if (std::from_chars(second, second + kDigits, total).ptr != second + kDigits) return;
  status.progress_what = str::Trim(std::string_view(line).substr(kWhat));
  status.progress_done = done;
  status.progress_total = total;
}

// At most ten reports a second, and the last one always.
bool IsDue(bool last) {
  using std::chrono::milliseconds;
  static std::atomic<milliseconds::rep> next = 0;
  const auto now =
      std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count();
  auto due = next.load();
  if (!last && now < due) return false;
  return next.compare_exchange_strong(due, now + 100) || last;
}

// --- Running or not

// The lock is an open-file-description lock, fcntl(2): it passes to the supervisor with the
// descriptor, the kernel drops it with its last holder, and it can be asked for without being
// taken. The file is never removed: a lock on a removed file excludes nobody.
struct flock WholeFile() {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

pnl_file::Fd TakeLock(const std::string& id) {
  const std::string path = PathOf(id, kLock);
  pnl_file::Fd fd = pnl_spawn::AboveStd(
      pnl_file::Open(path, O_RDWR | O_CREAT | O_NOFOLLOW, pnl_file::kSecretMode));
  if (!fd) throw pnl_err::System("open", path, errno);
  struct flock lock = WholeFile();
  if (fcntl(fd.Get(), F_OFD_SETLK, &lock) == 0) return fd;
  if (errno == EAGAIN || errno == EACCES) throw pnl_err::Error("task", "running", id);
  throw pnl_err::System("lock", path, errno);
}

// Fixed width: the second write needs no additional disk space.
void WritePid(const pnl_file::Fd& lock, const std::string& id, int pid) {
  const std::string text = str::Format("%-10d\n", pid);
  if (pnl_file::Retry([&] { return pwrite(lock.Get(), text.data(), text.size(), 0); }) < 0) {
    throw pnl_err::System("write", PathOf(id, kLock), errno);
  }
}

// The task is already running: a pid that cannot be written is not a failed start.
void NotePid(const pnl_file::Fd& lock, const std::string& id, int pid) {
  try {
    WritePid(lock, id, pid);
  } catch (const pnl_err::Error& error) {
    PNL_LOG(log_module, 3, "The pid of task '%s' is not known: %s", id.c_str(), error.what());
  }
}

bool IsRunning(const std::string& id) {
  const std::string path = PathOf(id, kLock);
  if (!pnl_file::Exists(path)) return false;
  const pnl_file::Fd fd = pnl_file::Open(path, O_RDONLY);
  struct flock lock = WholeFile();
  if (fcntl(fd.Get(), F_OFD_GETLK, &lock) != 0) throw pnl_err::System("lock", path, errno);
  return lock.l_type != F_UNLCK;
}

void ReadState(Status& status) {
  status.state = State::kRunning;
  if (IsRunning(status.id)) return;
  // The supervisor writes the exit code before it releases the lock.
  const std::string code = str::Trim(pnl_file::Read(PathOf(status.id, kExit)));
  if (test::Numeric(code)) {
    status.state = State::kFinished;
    status.exit_code = str::Int(code);
  } else if (!IsRunning(status.id)) {  // again: a new start may have removed the code
    status.state = State::kLost;
  }
}

// --- Starting

void RemoveFiles(const std::string& id, std::initializer_list<std::string_view> suffixes) {
  for (const std::string_view suffix : suffixes) pnl_file::RemoveFile(PathOf(id, suffix));
}

// 0, or why the program cannot be run.
int WhyNotRunnable(const std::string& program, const std::vector<std::string>& params) {
  for (const std::string& param : params) {
    if (param.find('\0') != std::string::npos) return EINVAL;
  }
  if (program.find('\0') != std::string::npos) return EINVAL;
  if (faccessat(AT_FDCWD, program.c_str(), X_OK, AT_EACCESS) != 0) return errno;
  return pnl_file::Info(program).IsFile() ? 0 : EACCES;
}

void Check(int error, const std::string& program) {
  if (error == 0) return;
  throw pnl_err::Error("task", "start", program).add_errno(error);
}

// 0, or the reason why the shell could not put the supervisor into the background.
int WaitForShell(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return 0;  // reaped elsewhere
  }
  return status == 0 ? 0 : EAGAIN;
}

pid_t Launch(const Status& task, const pnl_file::Fd& lock) {
  const std::string log_path = PathOf(task.id, kLog);
  const pnl_file::Fd log = pnl_spawn::AboveStd(
      pnl_file::Open(log_path, O_WRONLY | O_CREAT | O_EXCL | O_APPEND, pnl_file::kSecretMode));
  if (!log) throw pnl_err::System("open", log_path, errno);
  pnl_spawn::Child child;
  child.GiveNull();
  child.Give(log.Get(), STDOUT_FILENO);
  child.Give(log.Get(), STDERR_FILENO);
  child.Give(lock.Get(), kLockDescriptor);
  child.OwnSession();

  const std::string state = pnl_file::ConcatPath(pnl_file::RealPath(pnl_layout::kTaskDir), task.id);
  // The shell looks a name without "/" up in the PATH.
  const bool has_slash = task.program.find('/') != std::string::npos;
  std::vector<std::string> args = {"sh", "-c", kSupervisor, "sh", state};
  args.push_back(has_slash ? task.program : "./" + task.program);
  args.insert(args.end(), task.params.begin(), task.params.end());
  pid_t pid = 0;
  Check(child.Start("/bin/sh", args, pid), task.program);
  Check(WaitForShell(pid), task.program);
  return pid;
}

}  // namespace

std::string ToStr(State state) {
  switch (state) {
    case State::kRunning:
      return "running";
    case State::kFinished:
      return "finished";
    case State::kLost:
      return "lost";
  }
  return "";
}

LongTask::LongTask(std::string program, std::string name, std::string kind)
    : program_(std::move(program)),
      name_(std::move(name)),
      kind_(std::move(kind)),
      id_(MakeId(kind_, name_)) {}

void LongTask::SetParams(std::vector<std::string> params) {
  params_ = std::move(params);
}

std::string LongTask::Command() const {
  std::string command = pnl_proc::Escape(program_);
  for (const std::string& word : params_) command += " " + pnl_proc::Escape(word);
  return command;
}

void LongTask::Start(int mode) {
  if (mode != kDetached) throw pnl_err::Error("task", "mode", str::Str(mode));
  Check(WhyNotRunnable(program_, params_), program_);
  pnl_file::MkDir(pnl_layout::kTaskDir);
  const pnl_file::Fd lock = TakeLock(id_);
  WritePid(lock, id_, 0);  // the pid of the last run may belong to another process

  Status task;
  task.id = id_;
  task.kind = kind_;
  task.name = name_;
  task.program = program_;
  task.params = params_;
  task.started = pnl_date::DateTime::Now();
  try {
    // The log is a new file: a process of an earlier run may still write to the old one.
    RemoveFiles(id_, {kExit, kProgress, kLog});
    pnl_file::Write(PathOf(id_, kState), Describe(task), pnl_file::kSecretMode);
    task.pid = Launch(task, lock);
  } catch (const pnl_err::Error& error) {
    PNL_LOG(log_module, 3, "Task '%s' does not start: %s", id_.c_str(), error.what());
    RemoveFiles(id_, {kState, kLog});
    throw;
  }
  NotePid(lock, id_, task.pid);
}

Status Get(const std::string& id) {
  const std::string path = PathOf(id, kState);
  // An id that is not a valid file name (with the longest suffix) is no task.
  if (!test::PathComponent(id + std::string(kProgress)) || !pnl_file::Exists(path)) {
    throw pnl_err::Missed("task", id);
  }
  Status status = Parse(pnl_file::ReadE(path), path);
  status.id = id;
  status.pid = str::Int(pnl_file::Read(PathOf(id, kLock)));
  ReadState(status);
  ReadProgress(status);
  return status;
}

std::vector<Status> List() {
  std::vector<Status> tasks;
  if (!pnl_file::IsDir(pnl_layout::kTaskDir)) return tasks;
  for (pnl_file::Dir dir(pnl_layout::kTaskDir); dir.Read();) {
    if (!dir.name().ends_with(kState)) continue;
    try {
      tasks.push_back(Get(dir.name().substr(0, dir.name().size() - kState.size())));
    } catch (const pnl_err::Error& error) {
      // A damaged or just removed task is skipped; a directory that cannot be read is an error.
      if (error.code() == EACCES) throw;
      PNL_LOG(log_module, 4, "Task '%s' is left out: %s", dir.name().c_str(), error.what());
    }
  }
  std::sort(tasks.begin(), tasks.end(),
            [](const Status& a, const Status& b) { return a.id < b.id; });
  return tasks;
}

std::string LogPath(const std::string& id) {
  return PathOf(Get(id).id, kLog);
}

void ReportProgress(std::string_view what, std::uint64_t done, std::uint64_t total) noexcept {
  const char* const path = std::getenv(kProgressVariable);
  if (path == nullptr || !IsDue(done == total)) return;
  try {
    const std::string line = ProgressLine(what, done, total);
    const pnl_file::Fd fd =
        pnl_file::Open(path, O_WRONLY | O_CREAT | O_NOFOLLOW, pnl_file::kSecretMode);
    pnl_file::WriteAll(fd.Get(), line, path);
  } catch (const std::exception& error) {
    PNL_LOG(log_module, 4, "Progress is not written: %s", error.what());
  }
}

}  // namespace pnl_task
