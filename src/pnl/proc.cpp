#include "pnl/proc.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <ctime>
#include <functional>
#include <optional>
#include <span>
#include <string_view>

#include "pnl/command_streams.h"
#include "pnl/deadline.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/spawn.h"
#include "pnl/str.h"

namespace pnl_proc {

namespace {

using pnl_time::Deadline;
using Clock = Deadline::Clock;
using std::chrono::milliseconds;
using namespace std::chrono_literals;

pnl_log::Module log_module("proc");

constexpr std::size_t kBlock = 65536;  // capacity of a pipe, pipe(7): one read empties it

constexpr milliseconds kOwnEnd = 100ms;      // for a child to end after its streams are closed
constexpr milliseconds kLateReader = 300ms;  // for processes that outlive the child to read
constexpr milliseconds kDestroyGrace = 5s;   // between SIGTERM and SIGKILL
constexpr milliseconds kTimeoutGrace = 2s;   // the same after a time-out
constexpr milliseconds kKillWait = 2s;       // an uninterruptible sleep outlasts SIGKILL
constexpr milliseconds kTick = 20ms;         // between checks for which there is no event

[[noreturn]] void ThrowNotStarted(const std::string& command, int error) {
  throw pnl_err::Error(kError, "start", str::WithoutCredentials(command)).add_errno(error);
}

struct Pipe {
  pnl_file::Fd read;
  pnl_file::Fd write;
};

// Close-on-exec from the start: otherwise a child of another thread could inherit the write end,
// and the reader would never see the end.
Pipe MakePipe(const std::string& command) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) ThrowNotStarted(command, errno);
  Pipe pipe{pnl_file::Fd(ends[0]), pnl_file::Fd(ends[1])};
  pipe.read = pnl_spawn::AboveStd(std::move(pipe.read));
  if (!pipe.read) ThrowNotStarted(command, errno);
  pipe.write = pnl_spawn::AboveStd(std::move(pipe.write));
  if (!pipe.write) ThrowNotStarted(command, errno);
  return pipe;
}

// Only our end becomes non-blocking; the child's end is another open file.
void MakeNonBlocking(const pnl_file::Fd& fd) {
  const int flags = fcntl(fd.Get(), F_GETFL);
  fcntl(fd.Get(), F_SETFL, flags | O_NONBLOCK);
}

// By number: glibc 2.36 declares its wrapper for C only. Close-on-exec, pidfd_open(2).
pnl_file::Fd OpenPid(pid_t pid) {
  return pnl_file::Fd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

bool TryAgain(int error) {
  return error == EAGAIN || error == EINTR;
}

// write(2) that gives EPIPE for a closed pipe without raising SIGPIPE: the signal is blocked in
// this thread and then removed, unless one was already pending. Handlers belong to the process and
// are not changed.
ssize_t WriteQuietly(int fd, std::string_view data) {
  sigset_t pipe_signal;
  sigset_t pending;
  sigset_t mask;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  sigpending(&pending);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &mask);
  const ssize_t written = write(fd, data.data(), data.size());
  const int error = errno;
  if (written < 0 && error == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
    const timespec at_once{};
    while (sigtimedwait(&pipe_signal, nullptr, &at_once) < 0 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  errno = error;
  return written;
}

template <class Condition>
bool Within(milliseconds limit, Condition done) {
  const Deadline over(limit);
  for (milliseconds pause = 1ms;; pause = std::min(2 * pause, kTick)) {
    if (done()) return true;
    if (over.Passed()) return false;
    Sleep(static_cast<int>(pause.count()));
  }
}

}  // namespace

class Execute::Impl : public pnl_command::Streams {
 public:
  Impl(const std::string& command, int flags, const std::string& dir,
       const std::vector<std::string>& variables);
  ~Impl() override;

  void SetTimeout(int seconds);
  int Pid() const { return pid_; }
  /// Returns this object, or throws after a time-out, as every later call must.
  Impl& Asked();

 private:
  void Start(int flags, const std::string& dir, const std::vector<std::string>& variables);

  void PumpUntil(const std::function<bool()>& done) override;
  std::size_t Receive(char* to, std::size_t size) override;
  void CloseInput() override { in_fd_.Reset(); }
  bool Stuck() const override { return ended_ && Clock::now() - moved_ >= kLateReader; }
  void WaitEnd() override;
  int ExitCode() const override;
  [[noreturn]] void ThrowDropped() override;

  void Step();
  int PollTimeout() const;
  void WriteIn();
  void ReadOut();
  void ReadErr();
  std::size_t ReadBlock(pnl_file::Fd& fd, std::span<char> block);
  void ShutAll();

  void LookForEnd();
  void EndGroup(milliseconds grace);
  bool Reaped();
  bool GroupIsEmpty() const;
  void ThrowIfTimedOut();

  std::string command_;
  pid_t pid_ = -1;
  pnl_file::Fd pidfd_;  // empty when the kernel or the descriptor limit refused it
  pnl_file::Fd in_fd_;
  pnl_file::Fd out_fd_;
  pnl_file::Fd err_fd_;

  bool ended_ = false;  // known to have ended; still a zombie, which reserves pid and group
  bool reaped_ = false;
  std::optional<int> exit_code_;

  Clock::time_point moved_;  // when input was last accepted, or the end seen

  bool timed_out_ = false;
  std::optional<Deadline> deadline_;

  std::span<char> wanted_;    // the caller's buffer for output
  std::size_t received_ = 0;  // bytes in it
  std::unique_ptr<char[]> block_ = std::make_unique_for_overwrite<char[]>(kBlock);
};

// --- Start and end

Execute::Impl::Impl(const std::string& command, int flags, const std::string& dir,
                    const std::vector<std::string>& variables)
    : Streams(log_module, kBlock), command_(command) {
  Start(flags, dir, variables);
}

void Execute::Impl::Start(int flags, const std::string& dir,
                          const std::vector<std::string>& variables) {
  pnl_spawn::Child child;
  for (const std::string& variable : variables) child.Set(variable);
  Pipe in;
  Pipe err;
  if ((flags & kNoInput) == 0) in = MakePipe(command_);
  Pipe out = MakePipe(command_);
  if ((flags & kMergeStderr) == 0) err = MakePipe(command_);

  if (in.read) {
    child.Give(in.read.Get(), STDIN_FILENO);
  } else {
    child.GiveNull();
  }
  child.Give(out.write.Get(), STDOUT_FILENO);
  child.Give(err.write ? err.write.Get() : out.write.Get(), STDERR_FILENO);
  child.EnterDir(dir);
  if ((flags & kOwnSession) != 0) {
    child.OwnSession();
  } else {
    child.OwnGroup();
  }

  // "--": the command may begin with a dash.
  const int error = child.Start("/bin/sh", {"sh", "-c", "--", command_}, pid_);
  if (error != 0) ThrowNotStarted(command_, error);
  error_.SetName(std::to_string(pid_));
  PNL_TRACE(log_module, "[%d] %s", pid_, str::WithoutCredentials(command_).c_str());
  pidfd_ = OpenPid(pid_);
  in_fd_ = std::move(in.write);
  if (!in_fd_) ShutIn();
  out_fd_ = std::move(out.read);
  err_fd_ = std::move(err.read);
  for (const pnl_file::Fd* fd : {&in_fd_, &out_fd_, &err_fd_}) MakeNonBlocking(*fd);
}

Execute::Impl::~Impl() {
  ShutAll();
  if (reaped_) return;
  // Gives a child that is just ending time: a signal to its group would also end a daemon in it.
  pollfd end{pidfd_.Get(), POLLIN, 0};
  if (!ended_) poll(&end, 1, static_cast<int>(kOwnEnd.count()));
  if (!ended_) LookForEnd();
  if (ended_) {
    waitpid(pid_, nullptr, 0);
  } else {
    EndGroup(kDestroyGrace);
  }
}

// Checks without reaping: as long as the zombie exists, its number cannot be given to another
// group.
void Execute::Impl::LookForEnd() {
  siginfo_t info{};
  const int result = waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT);
  if (result == 0 && info.si_pid == 0) return;
  ended_ = true;
  moved_ = Clock::now();
  // ECHILD: another wait(2) of this process took the exit code, or SIGCHLD is ignored.
  if (result != 0) return;
  exit_code_ = info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
}

void Execute::Impl::EndGroup(milliseconds grace) {
  kill(-pid_, SIGTERM);
  if (!Within(grace, [this] { return Reaped() && GroupIsEmpty(); })) {
    kill(-pid_, SIGKILL);
    Within(kKillWait, [this] { return Reaped(); });
  }
  if (!reaped_)
    PNL_LOG(log_module, 3, "[%d] survives SIGKILL: %s", pid_,
            str::WithoutCredentials(command_).c_str());
  reaped_ = true;
}

bool Execute::Impl::Reaped() {
  if (!reaped_) reaped_ = waitpid(pid_, nullptr, WNOHANG) != 0;
  return reaped_;
}

// The number of a group is not reused while it has members: it is safe to use after the leader was
// reaped.
bool Execute::Impl::GroupIsEmpty() const {
  return kill(-pid_, 0) != 0 && errno == ESRCH;
}

void Execute::Impl::ThrowIfTimedOut() {
  if (!timed_out_) {
    if (!deadline_ || !deadline_->Passed()) return;
    timed_out_ = true;
    PNL_LOG(log_module, 3, "[%d] timed out: %s", pid_, str::WithoutCredentials(command_).c_str());
    ShutAll();
    if (!reaped_) EndGroup(kTimeoutGrace);
  }
  throw pnl_err::Error(kError, "timeout", str::WithoutCredentials(command_));
}

// --- The pump

void Execute::Impl::PumpUntil(const std::function<bool()>& done) {
  Asked();
  while (!done()) {
    ThrowIfTimedOut();
    Step();
  }
}

// Waits until data can be moved in some direction, and moves it.
void Execute::Impl::Step() {
  const int in = Unsent().empty() ? -1 : in_fd_.Get();  // poll(2) skips -1
  const int end = ended_ ? -1 : pidfd_.Get();
  pollfd fds[] = {
      {in, POLLOUT, 0}, {out_fd_.Get(), POLLIN, 0}, {err_fd_.Get(), POLLIN, 0}, {end, POLLIN, 0}};
  if (poll(fds, std::size(fds), PollTimeout()) < 0 && !TryAgain(errno)) {
    throw pnl_err::System("poll", command_, errno);
  }
  if (fds[0].revents != 0) WriteIn();
  if (fds[1].revents != 0) ReadOut();
  if (fds[2].revents != 0) ReadErr();
  if (!ended_ && (fds[3].revents != 0 || !pidfd_)) LookForEnd();
}

int Execute::Impl::PollTimeout() const {
  const bool look = ended_ ? !Unsent().empty() : !pidfd_;
  const int limit = look ? static_cast<int>(kTick.count()) : INT_MAX;
  if (deadline_) return std::min(limit, deadline_->Left());
  return look ? limit : -1;
}

void Execute::Impl::WriteIn() {
  const ssize_t written = WriteQuietly(in_fd_.Get(), Unsent());
  if (written >= 0) {
    Sent(static_cast<std::size_t>(written));
    moved_ = Clock::now();
  } else if (errno == EPIPE) {
    ShutIn();
    CloseInput();
  } else if (!TryAgain(errno)) {
    throw pnl_err::System("write", command_, errno);
  }
}

void Execute::Impl::ReadOut() {
  if (keeping_) {
    Keep({block_.get(), ReadBlock(out_fd_, {block_.get(), kBlock})});
  } else {
    received_ = ReadBlock(out_fd_, wanted_);
  }
  if (!out_fd_) out_ended_ = true;
}

void Execute::Impl::ReadErr() {
  error_.Add({block_.get(), ReadBlock(err_fd_, {block_.get(), kBlock})});
  if (!err_fd_) error_.Flush();
}

/// Closes `fd` at its end.
std::size_t Execute::Impl::ReadBlock(pnl_file::Fd& fd, std::span<char> block) {
  const ssize_t got = read(fd.Get(), block.data(), block.size());
  if (got > 0) return static_cast<std::size_t>(got);
  if (got < 0 && TryAgain(errno)) return 0;
  if (got < 0) throw pnl_err::System("read", command_, errno);
  fd.Reset();
  return 0;
}

void Execute::Impl::ShutAll() {
  ShutIn();
  closed_ = true;
  for (pnl_file::Fd* fd : {&in_fd_, &out_fd_, &err_fd_}) fd->Reset();
  error_.Flush();
}

// --- What the caller asks for

Execute::Impl& Execute::Impl::Asked() {
  if (timed_out_) ThrowIfTimedOut();
  return *this;
}

std::size_t Execute::Impl::Receive(char* to, std::size_t size) {
  wanted_ = {to, size};
  received_ = 0;
  PumpUntil([this] { return received_ > 0 || OutEnded(); });
  return received_;
}

// Waits for the child, not for the end of its streams: a daemon that it started may keep them open.
void Execute::Impl::WaitEnd() {
  PumpUntil([this] { return ended_; });
  // A pipe can hold at most one block.
  if (out_fd_) ReadOut();
  if (err_fd_) ReadErr();
  error_.Flush();
  waitpid(pid_, nullptr, 0);
  reaped_ = true;
}

int Execute::Impl::ExitCode() const {
  if (!exit_code_) throw pnl_err::Error(kError, "wait", str::WithoutCredentials(command_));
  return *exit_code_;
}

void Execute::Impl::ThrowDropped() {
  ShutAll();
  throw pnl_err::Error(kError, "output", command_)
      .add_param("reason", "there was too much output to be kept");
}

void Execute::Impl::SetTimeout(int seconds) {
  deadline_.reset();
  if (seconds > 0) deadline_.emplace(std::chrono::seconds(seconds));
}

Execute::Execute(const std::string& command, int flags, const std::string& dir)
    : Execute(command, flags, dir, {}) {}
Execute::Execute(const std::string& command, int flags, const std::string& dir,
                 const std::vector<std::string>& variables)
    : impl_(std::make_unique<Impl>(command, flags, dir, variables)) {}
Execute::~Execute() = default;

std::ostream& Execute::In() {
  return impl_->Asked().In();
}
void Execute::CloseIn() {
  impl_->Asked().CloseIn();
}
std::istream& Execute::Out() {
  return impl_->Asked().Out();
}
std::string Execute::Str(std::size_t limit) {
  return impl_->Asked().Str(limit);
}
std::string Execute::Str() {
  return Str(kMaxOutput);
}
std::string Execute::Said() {
  return impl_->Asked().Said();
}
int Execute::Result() {
  return impl_->Asked().Result();
}
std::string Execute::Complaint() const {
  return impl_->Complaint();
}
void Execute::SetTimeout(int seconds) {
  impl_->SetTimeout(seconds);
}
int Execute::Pid() const noexcept {
  return impl_->Pid();
}

// --- Words and waits

std::string Escape(std::string_view word) {
  constexpr std::string_view kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789@%+=:,./-_";
  if (word.find('\0') != std::string_view::npos) throw pnl_err::Error(kError, "escape");
  if (!word.empty() && word.find_first_not_of(kPlain) == std::string_view::npos) {
    return std::string(word);
  }
  return Quoted(word);
}

std::string Quoted(std::string_view text) {
  return "'" + str::Replace(text, "'", R"('\'')") + "'";  // closes the quotes around each
}

void Sleep(int milliseconds) {
  timespec end{};
  clock_gettime(CLOCK_MONOTONIC, &end);
  const long nanoseconds = end.tv_nsec + (milliseconds % 1000) * 1'000'000L;
  end.tv_sec += milliseconds / 1000 + nanoseconds / 1'000'000'000L;
  end.tv_nsec = nanoseconds % 1'000'000'000L;
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
  }
}

}  // namespace pnl_proc
