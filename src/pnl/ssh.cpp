#include "pnl/ssh.h"

#include <libssh/callbacks.h>
#include <libssh/libssh.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <optional>
#include <random>
#include <string_view>
#include <utility>

#include "pnl/command_streams.h"
#include "pnl/host.h"
#include "pnl/log.h"
#include "pnl/ssh_session.h"
#include "pnl/str.h"

namespace pnl_rpc {

namespace {

using namespace std::chrono_literals;

pnl_log::Module log_module("ssh");

constexpr int kOpenTries = 4;
constexpr std::chrono::milliseconds kOpenPause = 100ms;
// Time for the streams to close after the exit code: without any data, and in all.
constexpr std::chrono::milliseconds kDrain = 1s;
constexpr std::chrono::milliseconds kWholeDrain = 10s;
constexpr std::size_t kMostOfSudo = 65536;  // bytes of what it says before the command
constexpr std::size_t kBlock = 32768;       // the data of one packet, RFC 4253 6.1

struct FreeChannel {
  void operator()(ssh_channel channel) const { ssh_channel_free(channel); }
};
using Channel = std::unique_ptr<ssh_channel_struct, FreeChannel>;

/// RFC 4254 6.10: the name without "SIG"; 255, as ssh(1), for one that is not known here.
int ExitCodeOfSignal(std::string_view name) {
  for (int number = 1; number < 32; ++number) {
    const char* abbreviation = sigabbrev_np(number);
    if (abbreviation != nullptr && name == abbreviation) return 128 + number;
  }
  return 255;
}

/// sudo(8) in front of a command. It prints a mark on standard error when it asks for the password,
/// and the shell behind it another mark before it runs the command. Only then the input is for the
/// command: a sudo that asks for no password must not leave it to the command.
struct Sudo {
  Sudo() : ask("brefir-" + Nonce() + "-password"), go("brefir-" + Nonce() + "-go") {}

  const std::string ask, go;
  std::string said = {};  // on standard error, before the command
  bool asked = false;     // the mark has come
  bool begun = false;

  std::string Command(const std::string& text) const {
    const std::string script =
        "printf %s " + go + " >&2; c=$(printf %bx \"$1\"); exec /bin/sh -c \"${c%x}\"";
    return "sudo -S -H -p " + ask + " -- " +
           pnl_host::PortableCommand(script, "brefir-sudo", {pnl_host::EncodedWord(text)});
  }

 private:
  static std::string Nonce() {
    std::random_device device;
    return str::Format("%08x%08x", device(), device());
  }
};

/// The results of a command that has ended.
struct Remains {
  int code = 0;
  std::string output;  ///< unread output
  bool dropped = false;
  std::string complaint;
};

}  // namespace

/// The state that all copies share.
class SSH::Connection : public Session {
 public:
  using Session::Session;

  std::weak_ptr<Command> running;
  const Command* latest = nullptr;  ///< the command started last; only compare it
  std::optional<Remains> last;      ///< of the latest command, after its release
};

// --- Command

class SSH::Command : public pnl_command::Streams {
 public:
  Command(std::shared_ptr<Connection> connection, const std::string& command, Sinks sinks);
  ~Command() override;

  void Start();
  std::optional<int> Finish();
  void Abandon() noexcept;
  /// Does what Result does, then abandons the command. Failures are logged.
  void End() noexcept;

 private:
  void AwaitRoot();
  void TakeErrors(std::string_view arrived) noexcept;
  void SendPassword();

  static int OnData(ssh_session, ssh_channel, void* data, std::uint32_t size, int is_stderr,
                    void* self) noexcept;

  void PumpUntil(const std::function<bool()>& done) override;
  std::size_t Receive(char* to, std::size_t size) override;
  void CloseInput() override;
  void WaitEnd() override;
  int ExitCode() const override { return *exit_code_; }
  [[noreturn]] void ThrowDropped() override;
  void ThrowIfLost() override;
  void TakeHeld() override;
  bool Flushed() const override { return connection_->Flushed(); }
  bool Stuck() const override { return exit_code_.has_value(); }

  bool Within(std::chrono::milliseconds limit, const std::function<bool()>& done);
  bool Done(const std::function<int()>& call);
  bool Write();
  std::size_t Take(char* to, std::size_t size);
  bool HasMore() { return waiting_ > 0 || HasKept(); }
  std::optional<Remains> Rest() noexcept;
  void GiveUp() noexcept;
  void ThrowIfCut() const;
  pnl_err::Error Failed(std::string_view type, std::string_view reason) const {
    return connection_->Failure(type, text_, reason);
  }

  const std::shared_ptr<Connection> connection_;
  const std::string text_;
  Sinks sinks_;
  std::optional<Sudo> sudo_;
  ssh_channel_callbacks_struct callbacks_{};
  Channel channel_;  // empty: abandoned

  std::size_t waiting_ = 0;  // standard output buffered in libssh; the node waits
  bool heard_ = false;       // data came since the last check
  bool started_ = false;
  bool abandoned_ = false;
  std::optional<int> exit_code_;
};

// --- Start, and what libssh reports

SSH::Command::Command(std::shared_ptr<Connection> connection, const std::string& command,
                      Sinks sinks)
    : Streams(log_module, kBlock), connection_(std::move(connection)), text_(command) {
  sinks_ = std::move(sinks);
  error_.SetName(connection_->Host());
  callbacks_.userdata = this;
  callbacks_.channel_data_function = OnData;
  callbacks_.channel_eof_function = [](ssh_session, ssh_channel, void* self) noexcept {
    static_cast<Command*>(self)->out_ended_ = true;
  };
  callbacks_.channel_close_function = [](ssh_session, ssh_channel, void* self) noexcept {
    static_cast<Command*>(self)->closed_ = true;
  };
  callbacks_.channel_exit_status_function = [](ssh_session, ssh_channel, int code,
                                               void* self) noexcept {
    static_cast<Command*>(self)->exit_code_ = code;
  };
  callbacks_.channel_exit_signal_function = [](ssh_session, ssh_channel, const char* name, int,
                                               const char*, const char*, void* self) noexcept {
    static_cast<Command*>(self)->exit_code_ = ExitCodeOfSignal(name);
  };
  ssh_callbacks_init(&callbacks_);
  if (connection_->Options().sudo) sudo_.emplace();
}

void SSH::Command::Start() {
  if (text_.find('\0') != std::string::npos) throw Failed(kSshExec, "the command holds a NUL");
  // A server that allows few sessions may not have closed the previous one yet.
  bool open = false;
  for (int tries = 0; tries < kOpenTries && !open; ++tries) {
    if (tries > 1) Within(kOpenPause, [] { return false; });
    channel_.reset(ssh_channel_new(connection_->Get()));
    if (!channel_) throw std::bad_alloc();
    ssh_set_channel_callbacks(channel_.get(), &callbacks_);
    open = Done([this] { return ssh_channel_open_session(channel_.get()); });
  }
  const std::string line = sudo_ ? sudo_->Command(text_) : text_;
  if (!open || !Done([&] { return ssh_channel_request_exec(channel_.get(), line.c_str()); })) {
    throw Failed(kSshExec, connection_->Reason() + "; its SSH server may forbid it");
  }
  started_ = true;
  PNL_TRACE(log_module, "[%s] %s", connection_->Host().c_str(),
            str::WithoutCredentials(text_).c_str());
  if (sudo_) AwaitRoot();
}

// --- sudo

void SSH::Command::AwaitRoot() {
  const std::chrono::seconds limit(connection_->Options().connect_timeout);
  const auto told = [this] { return sudo_->begun || sudo_->asked || closed_ || exit_code_; };
  bool in_time = Within(limit, told);
  if (sudo_->asked) {
    SendPassword();
    in_time = Within(limit, told);
  }
  if (sudo_->begun) return;
  std::string reason = in_time ? "sudo does not run it" : "sudo does not answer";
  if (sudo_->asked) reason = "sudo refuses the password";
  std::string said = str::Trim(sudo_->said);
  const std::size_t last_line = said.rfind('\n');
  if (last_line != std::string::npos) said.erase(0, last_line + 1);
  Abandon();
  throw Failed(kSshSudo, str::Append(reason, said, ": "));
}

void SSH::Command::SendPassword() {
  sudo_->asked = false;
  sudo_->said.clear();
  const auto& password = connection_->Options().sudo_password;
  if (!password) {
    Abandon();
    throw Failed(kSshSudo, "sudo asks for a password");
  }
  std::string line;
  try {
    line = password() + "\n";
  } catch (...) {
    Abandon();
    throw;
  }
  const auto size = static_cast<std::uint32_t>(line.size());
  const int sent = ssh_channel_write(channel_.get(), line.data(), size);
  explicit_bzero(line.data(), line.size());
  if (sent != static_cast<int>(size)) throw Failed(kSshSudo, "the password could not be sent");
}

/// Standard error up to the mark of the command; what is behind the mark is the command's.
void SSH::Command::TakeErrors(std::string_view arrived) noexcept {
  if (sudo_ && !sudo_->begun) {
    std::string& said = sudo_->said;
    try {
      said.append(arrived);
      if (said.size() > kMostOfSudo) said.erase(0, said.size() - kMostOfSudo);
    } catch (const std::bad_alloc&) {
      said.clear();
    }
    if (const std::size_t ask = said.find(sudo_->ask); ask != std::string::npos) {
      said.erase(ask, sudo_->ask.size());
      sudo_->asked = true;
    }
    const std::size_t mark = said.find(sudo_->go);
    if (mark == std::string::npos) return;
    sudo_->begun = true;
    arrived = std::string_view(said).substr(mark + sudo_->go.size());
  }
  if (arrived.empty()) return;
  error_.Add(arrived);
  Give(sinks_.errors, arrived);
}

/// Processes events until `done`; false when the time is up.
bool SSH::Command::Within(std::chrono::milliseconds limit, const std::function<bool()>& done) {
  const Deadline over(limit);
  connection_->BeginWait();
  while (!done()) {
    if (over.Passed()) return false;
    connection_->Step(text_, over.Left());
  }
  return true;
}

/// Calls until libssh no longer says "again".
bool SSH::Command::Done(const std::function<int()>& call) {
  connection_->BeginWait();
  connection_->ThrowIfLost(text_);
  int result = call();
  for (; result == SSH_AGAIN; result = call()) connection_->Step(text_);
  connection_->ThrowIfLost(text_);
  return result == SSH_OK;
}

/// Called with the output that libssh holds; output that is not taken stays there.
int SSH::Command::OnData(ssh_session, ssh_channel, void* data, std::uint32_t size, int is_stderr,
                         void* self) noexcept {
  auto& command = *static_cast<Command*>(self);
  const std::string_view arrived(static_cast<const char*>(data), size);
  command.heard_ = true;
  if (is_stderr != 0) {
    command.TakeErrors(arrived);
  } else if (command.sinks_.output) {
    command.Give(command.sinks_.output, arrived);
  } else if (command.keeping_) {
    command.Keep(arrived);
  } else {
    command.waiting_ = size;
    return 0;
  }
  return static_cast<int>(size);
}

// --- The pump

void SSH::Command::PumpUntil(const std::function<bool()>& done) {
  connection_->BeginWait();
  for (;;) {
    // Writing may also receive: check `done` after it.
    const bool written = Write();
    ThrowUntold();
    if (done()) return;
    if (!written) connection_->Step(text_);
  }
}

/// False when there is nothing to write, or writing is not possible now.
bool SSH::Command::Write() {
  if (Unsent().empty() || !TakesInput() || !Flushed()) return false;
  connection_->ThrowIfLost(text_);
  const auto size = static_cast<std::uint32_t>(std::min<std::size_t>(Unsent().size(), INT_MAX));
  const int sent = ssh_channel_write(channel_.get(), Unsent().data(), size);
  if (sent <= 0) return false;  // the window is full, or keys are being exchanged
  Sent(static_cast<std::size_t>(sent));
  connection_->BeginWait();
  return true;
}

std::size_t SSH::Command::Receive(char* to, std::size_t size) {
  PumpUntil([this] { return waiting_ > 0 || OutEnded(); });
  if (waiting_ > 0) return Take(to, size);
  ThrowIfCut();
  return 0;
}

std::size_t SSH::Command::Take(char* to, std::size_t size) {
  const auto wanted = static_cast<std::uint32_t>(std::min(size, waiting_));
  const int got = ssh_channel_read_nonblocking(channel_.get(), to, wanted, 0);
  connection_->ThrowIfLost(text_);
  if (got <= 0) throw Failed(kSshClosed, connection_->Reason());
  waiting_ -= static_cast<std::size_t>(got);
  return static_cast<std::size_t>(got);
}

void SSH::Command::TakeHeld() {
  std::string block;
  while (waiting_ > 0) {
    block.resize(waiting_);
    block.resize(Take(block.data(), block.size()));
    Keep(block);
  }
}

void SSH::Command::ThrowIfLost() {
  if (!closed_) connection_->ThrowIfLost(text_);
}

void SSH::Command::ThrowDropped() {
  if (!waited_) Abandon();
  throw Failed(kSshExec, "it said more than the " + std::to_string(limit_) + " bytes to be kept");
}

void SSH::Command::ThrowIfCut() const {
  if (abandoned_) throw Failed(kSshClosed, "the command was given up here");
  if (closed_ && !exit_code_) throw Failed(kSshClosed, "the node ended it without an exit code");
}

/// Waits for the exit code, which comes when the shell ends, and then for the rest of the streams;
/// not for a daemon that has inherited them.
void SSH::Command::WaitEnd() {
  PumpUntil([this] { return exit_code_ || closed_; });
  ThrowIfCut();
  const Deadline whole(kWholeDrain);
  const auto over = [this] { return closed_ || connection_->Lost(); };
  const auto moved = [&] { return std::exchange(heard_, false) || over(); };
  while (!over() && !whole.Passed() && Within(kDrain, moved)) {
  }
  error_.Flush();
  ThrowUntold();
}

// --- What the caller asks for

void SSH::Command::CloseInput() {
  if (closed_) return;
  ssh_channel_send_eof(channel_.get());
  PumpUntil([this] { return Flushed() || closed_; });
}

std::optional<int> SSH::Command::Finish() {
  CloseIn();
  keeping_ = false;
  const auto over = [this] { return closed_ || (out_ended_ && exit_code_) || HasMore(); };
  if (Within(2 * connection_->Timeout(), over) && !HasMore()) return Result();
  Abandon();
  return std::nullopt;
}

void SSH::Command::Abandon() noexcept {
  if (!channel_) return;
  abandoned_ = true;
  if (!closed_ && !connection_->Lost()) ssh_channel_close(channel_.get());
  GiveUp();
}

void SSH::Command::End() noexcept {
  if (!channel_) return;
  try {
    if (started_) Result();
  } catch (const std::exception& error) {
    PNL_LOG(log_module, 3, "%s", error.what());
  }
  GiveUp();
}

std::optional<Remains> SSH::Command::Rest() noexcept {
  if (!exit_code_) return std::nullopt;
  Remains rest{*exit_code_, {}, Dropped(), {}};
  try {
    rest.complaint = Complaint();
    rest.output = TakeKept();
  } catch (const std::bad_alloc&) {
    rest.dropped = true;
  }
  return rest;
}

SSH::Command::~Command() {
  End();
  if (connection_->latest == this) connection_->last = Rest();
}

void SSH::Command::GiveUp() noexcept {
  // libssh keeps the channel until the node has closed it too.
  ssh_remove_channel_callbacks(channel_.get(), &callbacks_);
  channel_.reset();
  closed_ = in_closed_ = true;
  waiting_ = 0;
}

// --- The session as the caller sees it

bool SessionFailed(const pnl_err::Error& error) {
  static constexpr std::string_view kTypes[] = {kSshConnect, kSshHostKey, kSshAuth,    kSshExec,
                                                kSshTimeout, kSshClosed,  kSshStopped, kSshSudo};
  return std::find(std::begin(kTypes), std::end(kTypes), error.type()) != std::end(kTypes);
}

SSH::SSH(const SshOptions& options) : connection_(std::make_shared<Connection>(options)) {}
SSH::SSH(std::shared_ptr<Connection> connection, std::shared_ptr<Command> command)
    : connection_(std::move(connection)), command_(std::move(command)) {}
SSH::SSH(const SSH&) = default;
SSH::SSH(SSH&&) noexcept = default;
SSH& SSH::operator=(const SSH&) = default;
SSH& SSH::operator=(SSH&&) noexcept = default;
SSH::~SSH() = default;

SSH SSH::Execute(const std::string& command) {
  return Execute(command, Sinks());
}

SSH SSH::Execute(const std::string& command, Sinks sinks) {
  if (const auto before = connection_->running.lock()) before->End();
  connection_->last.reset();
  const auto started = std::make_shared<Command>(connection_, command, std::move(sinks));
  connection_->running = started;
  connection_->latest = started.get();
  started->Start();
  return SSH(connection_, started);
}

std::shared_ptr<SSH::Command> SSH::Latest() const {
  return command_ ? command_ : connection_->running.lock();
}

/// For an object without a running command.
void SSH::ThrowIfNoneEnded() const {
  if (connection_->last) return;
  connection_->ThrowIfLost("");
  throw connection_->Failure(kSshExec, "", "no command has run to its end");
}

/// Its unread output.
std::string SSH::LastOutput(std::size_t limit) {
  ThrowIfNoneEnded();
  Remains& last = *connection_->last;
  if (last.dropped || last.output.size() > limit) {
    throw connection_->Failure(kSshExec, "", "it said more than was kept of it");
  }
  return std::exchange(last.output, {});
}

std::shared_ptr<SSH::Command> SSH::Running() const {
  if (auto command = Latest()) return command;
  connection_->ThrowIfLost("");
  throw connection_->Failure(kSshExec, "", "no command is running");
}

int SSH::Result() {
  if (const auto command = Latest()) return command->Result();
  ThrowIfNoneEnded();
  return connection_->last->code;
}

std::string SSH::Str(std::size_t limit) {
  if (const auto command = Latest()) return command->Str(limit);
  return LastOutput(limit);
}

std::string SSH::Said() {
  if (const auto command = Latest()) return command->Said();
  return LastOutput(kMaxUnasked);
}

std::string SSH::Str() {
  return Str(kMaxOutput);
}

std::optional<int> SSH::Finish() {
  return Running()->Finish();
}

void SSH::Abandon() noexcept {
  if (const auto command = Latest()) command->Abandon();
}

std::string SSH::Complaint() const {
  if (const auto command = Latest()) return command->Complaint();
  return connection_->last ? connection_->last->complaint : "";
}

std::ostream& SSH::In() {
  return Running()->In();
}

void SSH::CloseIn() {
  Running()->CloseIn();
}

std::istream& SSH::Out() {
  return Running()->Out();
}

void SSH::SetTimeout(int seconds) {
  connection_->SetTimeout(seconds);
}

void SSH::Outlive(std::chrono::steady_clock::time_point deadline) {
  connection_->Outlive(deadline);
}

const std::string& SSH::Host() const {
  return connection_->Host();
}

}  // namespace pnl_rpc
