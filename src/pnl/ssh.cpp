#include "pnl/ssh.h"

#include <libssh/callbacks.h>
#include <libssh/libssh.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <locale>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

#include "pnl/err.h"
#include "pnl/line_log.h"
#include "pnl/log.h"
#include "pnl/ssh_session.h"
#include "pnl/str.h"

namespace pnl_rpc {

namespace {

using namespace std::chrono_literals;

pnl_log::Module log_module("ssh");

constexpr int kOpenTries = 4;
constexpr std::chrono::milliseconds kOpenPause = 100ms;
constexpr std::chrono::milliseconds kDrain = 1s;  // for the streams to close after the exit code
constexpr std::size_t kBlock = 32768;             // the data of one packet, RFC 4253 6.1

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

}  // namespace

/// What all copies share.
class SSH::Connection : public Session {
 public:
  using Session::Session;

  std::weak_ptr<Command> running;
  std::optional<int> last_exit_code;  ///< of the command that ended last
};

// --- Command

class SSH::Command {
 public:
  Command(std::shared_ptr<Connection> connection, const std::string& command);
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;
  ~Command() { End(); }

  void Start();
  std::ostream& In();
  std::istream& Out();
  void CloseIn();
  std::string Str(std::size_t limit);
  int Result();
  std::optional<int> Finish();
  void Abandon() noexcept;
  /// What Result does, and then the command is given up. What goes wrong is logged.
  void End() noexcept;

 private:
  // What the caller writes is sent in whole packets; a block of that size goes its way uncopied.
  class InBuffer : public std::streambuf {
   public:
    explicit InBuffer(Command& command) : command_(command) {}
    void Shut() { setp(nullptr, nullptr); }

   protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* data, std::streamsize size) override;
    int sync() override;

   private:
    bool Send(std::string_view data);

    Command& command_;
    std::unique_ptr<char[]> block_;
  };

  // A large block is read from the channel to where the caller wants it.
  class OutBuffer : public std::streambuf {
   public:
    explicit OutBuffer(Command& command) : command_(command) {}
    std::string TakeRest();

   protected:
    int_type underflow() override;
    std::streamsize xsgetn(char* to, std::streamsize size) override;

   private:
    Command& command_;
    std::string block_;
  };

  static int OnData(ssh_session, ssh_channel, void* data, std::uint32_t size, int is_stderr,
                    void* self) noexcept;
  static void OnEnd(ssh_session, ssh_channel, void* self) noexcept;
  static void OnClose(ssh_session, ssh_channel, void* self) noexcept;
  static void OnExit(ssh_session, ssh_channel, int code, void* self) noexcept;
  static void OnSignal(ssh_session, ssh_channel, const char* name, int, const char*, const char*,
                       void* self) noexcept;

  void Pause(std::chrono::milliseconds length);
  template <class Call>
  bool Done(Call call);
  bool Send(std::string_view data);
  std::size_t Read(char* to, std::size_t size);
  std::size_t Take(char* to, std::size_t size);
  void Collect(std::size_t limit);
  void Keep(std::string_view data);
  void WaitEnd();
  bool HasMore();
  void GiveUp() noexcept;
  void ThrowIfLost();
  void ThrowIfDropped() const;
  void ThrowIfCut() const;
  pnl_err::Error Failed(std::string_view type, std::string_view reason) const {
    return connection_->Failure(type, text_, reason);
  }
  template <class Done>
  void Await(Done done) {
    connection_->Await(text_, done);
  }

  const std::shared_ptr<Connection> connection_;
  const std::string text_;
  ssh_channel_callbacks_struct callbacks_{};
  Channel channel_;  // empty: given up

  bool keeping_ = false;     // output that arrives; else it stays with libssh and stops the node
  std::size_t waiting_ = 0;  // standard output that libssh holds
  std::string kept_;         // the output before that
  std::size_t limit_ = 0;    // of that
  bool dropped_ = false;     // there was more of it than could be kept
  std::optional<pnl_err::Error> untold_;
  bool started_ = false;
  bool in_closed_ = false;
  bool out_ended_ = false;
  bool closed_ = false;  // by the node, or given up
  bool abandoned_ = false;
  bool waited_ = false;  // for the end
  std::optional<int> exit_code_;
  pnl_log::LineLog err_log_;

  InBuffer in_buffer_{*this};
  OutBuffer out_buffer_{*this};
  std::ostream in_{&in_buffer_};
  std::istream out_{&out_buffer_};
};

// --- Streams

/// A stream swallows what is thrown below it: the next call tells it.
bool SSH::Command::InBuffer::Send(std::string_view data) {
  try {
    return command_.Send(data);
  } catch (const pnl_err::Error& error) {
    command_.untold_ = error;
    return false;
  }
}

int SSH::Command::InBuffer::sync() {
  const std::string_view unsent(pbase(), static_cast<std::size_t>(pptr() - pbase()));
  if (!Send(unsent)) return -1;
  setp(pbase(), epptr());
  return 0;
}

std::streambuf::int_type SSH::Command::InBuffer::overflow(int_type c) {
  if (sync() != 0) return traits_type::eof();
  if (!block_) {
    block_ = std::make_unique_for_overwrite<char[]>(kBlock);
    setp(block_.get(), block_.get() + kBlock);
  }
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  return sputc(traits_type::to_char_type(c));
}

std::streamsize SSH::Command::InBuffer::xsputn(const char* data, std::streamsize size) {
  if (size < static_cast<std::streamsize>(kBlock)) return std::streambuf::xsputn(data, size);
  if (sync() != 0) return 0;
  return Send({data, static_cast<std::size_t>(size)}) ? size : 0;
}

std::streambuf::int_type SSH::Command::OutBuffer::underflow() {
  setg(nullptr, nullptr, nullptr);
  block_.clear();
  block_.swap(command_.kept_);
  if (block_.empty()) {
    block_.resize(kBlock);
    block_.resize(command_.Read(block_.data(), block_.size()));
  }
  if (block_.empty()) return traits_type::eof();
  setg(block_.data(), block_.data(), block_.data() + block_.size());
  return traits_type::to_int_type(*gptr());
}

std::streamsize SSH::Command::OutBuffer::xsgetn(char* to, std::streamsize size) {
  std::streamsize got = 0;
  while (got < size) {
    if (gptr() < egptr()) {
      const auto taken = std::min<std::streamsize>(egptr() - gptr(), size - got);
      std::copy_n(gptr(), taken, to + got);
      setg(eback(), gptr() + taken, egptr());
      got += taken;
    } else if (command_.kept_.empty() && size - got >= static_cast<std::streamsize>(kBlock) / 2) {
      const std::size_t read = command_.Read(to + got, static_cast<std::size_t>(size - got));
      if (read == 0) break;
      got += static_cast<std::streamsize>(read);
    } else if (traits_type::eq_int_type(underflow(), traits_type::eof())) {
      break;
    }
  }
  return got;
}

std::string SSH::Command::OutBuffer::TakeRest() {
  std::string rest(gptr(), egptr());
  setg(nullptr, nullptr, nullptr);
  return rest;
}

// --- Start, and what libssh reports

SSH::Command::Command(std::shared_ptr<Connection> connection, const std::string& command)
    : connection_(std::move(connection)),
      text_(command),
      err_log_(log_module, connection_->Host()) {
  // A failure below the stream is not the end of the data: it goes through to the reader.
  out_.exceptions(std::ios::badbit);
  // What the caller writes is for a machine.
  in_.imbue(std::locale::classic());
  out_.imbue(std::locale::classic());
  callbacks_.userdata = this;
  callbacks_.channel_data_function = OnData;
  callbacks_.channel_eof_function = OnEnd;
  callbacks_.channel_close_function = OnClose;
  callbacks_.channel_exit_status_function = OnExit;
  callbacks_.channel_exit_signal_function = OnSignal;
  ssh_callbacks_init(&callbacks_);
}

void SSH::Command::Start() {
  if (text_.find('\0') != std::string::npos) throw Failed("ssh_exec", "the command holds a NUL");
  // A server that allows few sessions at once may not have put away the one before yet.
  bool open = false;
  for (int tries = 0; tries < kOpenTries && !open; ++tries) {
    if (tries > 1) Pause(kOpenPause);
    channel_.reset(ssh_channel_new(connection_->Get()));
    if (!channel_) throw std::bad_alloc();
    ssh_set_channel_callbacks(channel_.get(), &callbacks_);
    open = Done([this] { return ssh_channel_open_session(channel_.get()); });
  }
  if (!open || !Done([this] { return ssh_channel_request_exec(channel_.get(), text_.c_str()); })) {
    throw Failed("ssh_exec", connection_->Reason() + "; its SSH server may forbid it");
  }
  started_ = true;
  PNL_TRACE(log_module, "[%s] %s", connection_->Host().c_str(),
            str::WithoutCredentials(text_).c_str());
}

void SSH::Command::Pause(std::chrono::milliseconds length) {
  const Deadline over(length);
  connection_->BeginWait();
  while (!over.Passed()) connection_->Step(text_, over.Left());
}

/// Calls until libssh no longer says "again".
template <class Call>
bool SSH::Command::Done(Call call) {
  connection_->BeginWait();
  connection_->ThrowIfLost(text_);
  int result = call();
  for (; result == SSH_AGAIN; result = call()) connection_->Step(text_);
  connection_->ThrowIfLost(text_);
  return result == SSH_OK;
}

/// Given all output that libssh holds; what is not taken stays there.
int SSH::Command::OnData(ssh_session, ssh_channel, void* data, std::uint32_t size, int is_stderr,
                         void* self) noexcept {
  auto& command = *static_cast<Command*>(self);
  const std::string_view arrived(static_cast<const char*>(data), size);
  if (is_stderr == 0 && !command.keeping_) {
    command.waiting_ = size;
    return 0;
  }
  try {
    if (is_stderr == 0) {
      command.Keep(arrived);
    } else {
      command.err_log_.Add(arrived);
    }
  } catch (const std::bad_alloc&) {  // nothing is thrown through libssh
    if (is_stderr == 0) command.dropped_ = true;
  }
  return static_cast<int>(size);
}

void SSH::Command::OnEnd(ssh_session, ssh_channel, void* self) noexcept {
  static_cast<Command*>(self)->out_ended_ = true;
}

void SSH::Command::OnClose(ssh_session, ssh_channel, void* self) noexcept {
  static_cast<Command*>(self)->closed_ = true;
}

void SSH::Command::OnExit(ssh_session, ssh_channel, int code, void* self) noexcept {
  static_cast<Command*>(self)->exit_code_ = code;
}

void SSH::Command::OnSignal(ssh_session, ssh_channel, const char* name, int, const char*,
                            const char*, void* self) noexcept {
  static_cast<Command*>(self)->exit_code_ = ExitCodeOfSignal(name);
}

// --- The pump

/// False when the command no longer takes input.
bool SSH::Command::Send(std::string_view data) {
  if (data.empty()) return !in_closed_ && !closed_;
  Collect(kMaxOutput);
  connection_->BeginWait();
  while (!data.empty() && !in_closed_ && !closed_) {
    connection_->ThrowIfLost(text_);
    const auto size = static_cast<std::uint32_t>(std::min<std::size_t>(data.size(), INT_MAX));
    const int sent = ssh_channel_write(channel_.get(), data.data(), size);
    if (sent > 0) {
      data.remove_prefix(static_cast<std::size_t>(sent));
      Await([this] { return connection_->Flushed() || closed_; });
    } else if (!closed_) {
      connection_->Step(text_);  // the window is full, or keys are being exchanged
    }
  }
  return data.empty();
}

/// At most `size` bytes of standard output, at least one; 0 at its end.
std::size_t SSH::Command::Read(char* to, std::size_t size) {
  in_.flush();
  ThrowIfLost();
  keeping_ = false;
  Await([this] { return waiting_ > 0 || out_ended_ || closed_; });
  if (waiting_ == 0) {
    ThrowIfDropped();
    ThrowIfCut();
    return 0;
  }
  return Take(to, size);
}

std::size_t SSH::Command::Take(char* to, std::size_t size) {
  const auto wanted = static_cast<std::uint32_t>(std::min(size, waiting_));
  const int got = ssh_channel_read_nonblocking(channel_.get(), to, wanted, 0);
  connection_->ThrowIfLost(text_);
  if (got <= 0) throw Failed("ssh_closed", connection_->Reason());
  waiting_ -= static_cast<std::size_t>(got);
  return static_cast<std::size_t>(got);
}

void SSH::Command::ThrowIfLost() {
  if (untold_) throw pnl_err::Error(*std::exchange(untold_, std::nullopt));
  if (!closed_) connection_->ThrowIfLost(text_);
}

void SSH::Command::ThrowIfDropped() const {
  if (!dropped_) return;
  throw Failed("ssh_exec", "it said more than the " + std::to_string(limit_) + " bytes to be kept");
}

void SSH::Command::ThrowIfCut() const {
  if (abandoned_) throw Failed("ssh_closed", "the command was given up here");
  if (closed_ && !exit_code_) throw Failed("ssh_closed", "the node ended it without an exit code");
}

/// From now on no output stays with libssh, and as much as `limit` of it is kept.
void SSH::Command::Collect(std::size_t limit) {
  if (!dropped_) limit_ = limit;  // else it is the one that was exceeded
  Keep({});
  std::string block;
  while (waiting_ > 0 && channel_) {
    block.resize(waiting_);
    block.resize(Take(block.data(), block.size()));
    Keep(block);
  }
  keeping_ = true;
}

void SSH::Command::Keep(std::string_view data) {
  if (kept_.size() + data.size() > limit_) dropped_ = true;
  if (dropped_) {
    kept_ = {};
  } else {
    kept_ += data;
  }
}

/// For the exit code, which comes when the shell ends; then for the rest of the streams, but not
/// for a daemon that has inherited them.
void SSH::Command::WaitEnd() {
  if (waited_) return;
  Await([this] { return exit_code_ || closed_; });
  ThrowIfCut();
  const Deadline drained(kDrain);
  connection_->BeginWait();
  while (!closed_ && !connection_->Lost() && !drained.Passed()) {
    connection_->Step(text_, drained.Left());
  }
  err_log_.Flush();
  waited_ = true;
}

// --- What the caller asks for

std::ostream& SSH::Command::In() {
  ThrowIfLost();
  return in_;
}

std::istream& SSH::Command::Out() {
  return out_;
}

void SSH::Command::CloseIn() {
  if (in_closed_) return;
  in_buffer_.pubsync();
  ThrowIfLost();
  in_buffer_.Shut();
  in_.setstate(std::ios::badbit);
  in_closed_ = true;
  if (closed_) return;
  ssh_channel_send_eof(channel_.get());
  Await([this] { return connection_->Flushed() || closed_; });
}

std::string SSH::Command::Str(std::size_t limit) {
  CloseIn();
  Collect(limit);
  Await([this] { return out_ended_ || closed_ || dropped_; });
  if (dropped_ && !waited_) Abandon();
  ThrowIfDropped();
  WaitEnd();
  std::string text = out_buffer_.TakeRest();
  if (text.empty()) return std::exchange(kept_, {});
  return text += std::exchange(kept_, {});
}

int SSH::Command::Result() {
  CloseIn();
  if (!waited_) Collect(std::max(kept_.size(), kMaxUnasked));
  WaitEnd();
  return *exit_code_;
}

bool SSH::Command::HasMore() {
  return waiting_ > 0 || !kept_.empty() || out_buffer_.in_avail() > 0;
}

std::optional<int> SSH::Command::Finish() {
  CloseIn();
  const Deadline patience(2 * connection_->Timeout());
  keeping_ = false;
  connection_->BeginWait();
  while (!closed_ && !(out_ended_ && exit_code_) && !HasMore() && !patience.Passed()) {
    connection_->Step(text_, patience.Left());
  }
  if (!HasMore() && !patience.Passed()) return Result();
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

void SSH::Command::GiveUp() noexcept {
  connection_->last_exit_code = exit_code_;
  // The channel itself lives on until the node has closed it, too.
  ssh_remove_channel_callbacks(channel_.get(), &callbacks_);
  channel_.reset();
  closed_ = in_closed_ = true;
  waiting_ = 0;
}

// --- The session as the caller sees it

SSH::SSH(const SshOptions& options) : connection_(std::make_shared<Connection>(options)) {}
SSH::SSH(std::shared_ptr<Connection> connection, std::shared_ptr<Command> command)
    : connection_(std::move(connection)), command_(std::move(command)) {}
SSH::SSH(const SSH&) = default;
SSH::SSH(SSH&&) noexcept = default;
SSH& SSH::operator=(const SSH&) = default;
SSH& SSH::operator=(SSH&&) noexcept = default;
SSH::~SSH() = default;

SSH SSH::Execute(const std::string& command) {
  if (const auto before = connection_->running.lock()) before->End();
  connection_->last_exit_code.reset();
  const auto started = std::make_shared<Command>(connection_, command);
  connection_->running = started;
  started->Start();
  return SSH(connection_, started);
}

std::shared_ptr<SSH::Command> SSH::Latest() const {
  return command_ ? command_ : connection_->running.lock();
}

/// For an object over which no command runs.
void SSH::ThrowIfNoneEnded() const {
  if (connection_->last_exit_code) return;
  connection_->ThrowIfLost("");
  throw connection_->Failure("ssh_exec", "", "no command has run to its end");
}

std::shared_ptr<SSH::Command> SSH::Running() const {
  if (auto command = Latest()) return command;
  connection_->ThrowIfLost("");
  throw connection_->Failure("ssh_exec", "", "no command is running");
}

int SSH::Result() {
  if (const auto command = Latest()) return command->Result();
  ThrowIfNoneEnded();
  return *connection_->last_exit_code;
}

std::string SSH::Str(std::size_t limit) {
  if (const auto command = Latest()) return command->Str(limit);
  ThrowIfNoneEnded();
  return "";
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

const std::string& SSH::Host() const {
  return connection_->Host();
}

}  // namespace pnl_rpc
