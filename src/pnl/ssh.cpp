#include "pnl/ssh.h"

#include <fcntl.h>
#include <libssh/callbacks.h>
#include <libssh/libssh.h>
#include <libssh/server.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <new>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/line_log.h"
#include "pnl/log.h"

namespace pnl_rpc {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using namespace std::chrono_literals;

pnl_log::Module log_module("ssh");

constexpr int kDefaultTimeout = 60;
constexpr milliseconds kDrain = 1s;  // for the streams to close after the exit code
constexpr int kOpenTries = 3;
constexpr std::size_t kBlock = 32768;              // the data of one packet, RFC 4253 6.1
constexpr std::size_t kKeptByResult = 16U << 20U;  // of output that nobody may ever ask for

pnl_err::Error Failure(std::string_view type, std::string_view host, std::string_view command,
                       std::string_view reason) {
  return pnl_err::Error(type, host, command).add_param("reason", reason);
}

template <auto kFree>
struct Freer {
  template <class Thing>
  void operator()(Thing* thing) const {
    kFree(thing);
  }
};
template <class Thing, auto kFree>
using Owner = std::unique_ptr<Thing, Freer<kFree>>;

using Session = Owner<ssh_session_struct, ssh_free>;
using Event = Owner<ssh_event_struct, ssh_event_free>;
using Channel = Owner<ssh_channel_struct, ssh_channel_free>;
using Key = Owner<ssh_key_struct, ssh_key_free>;
using Text = Owner<char, ssh_string_free_char>;
using Hash = Owner<unsigned char, [](unsigned char* hash) { ssh_clean_pubkey_hash(&hash); }>;
using Addresses = Owner<addrinfo, freeaddrinfo>;

/// A point in time for a whole sequence of waits, as poll(2) wants it.
class Deadline {
 public:
  explicit Deadline(milliseconds span) : end_(Clock::now() + span) {}
  bool Passed() const { return Clock::now() >= end_; }
  int Left() const {
    const auto left = std::chrono::ceil<milliseconds>(end_ - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
  }

 private:
  Clock::time_point end_;
};

/// False when the time is up.
bool Ready(int fd, short events, const Deadline& deadline) {
  pollfd ready{fd, events, 0};
  for (;;) {
    const int count = poll(&ready, 1, deadline.Left());
    if (count >= 0) return count > 0;
    if (errno != EINTR) return false;
  }
}

// --- The way to the node

/// Close-on-exec and non-blocking; 0 or the error number goes to `error`.
pnl_file::Fd ConnectTo(const addrinfo& address, const Deadline& deadline, int& error) {
  pnl_file::Fd fd(socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  error = errno;
  if (!fd) return fd;
  error = 0;
  // Small packets back and forth: Nagle's delay would cost 40 ms for each.
  const int on = 1;
  setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (connect(fd.Get(), address.ai_addr, address.ai_addrlen) == 0) return fd;
  error = errno;
  // EINTR: the connection goes on being set up, connect(2).
  if (error != EINPROGRESS && error != EINTR) return {};
  error = ETIMEDOUT;
  if (!Ready(fd.Get(), POLLOUT, deadline)) return {};
  socklen_t size = sizeof error;
  getsockopt(fd.Get(), SOL_SOCKET, SO_ERROR, &error, &size);
  return error == 0 ? std::move(fd) : pnl_file::Fd();
}

/// Tries the addresses of the host one after the other, none for longer than its share of the time.
pnl_file::Fd ConnectTo(const SshOptions& options, const Deadline& deadline) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const std::string port = std::to_string(options.port);
  const int failed = getaddrinfo(options.host.c_str(), port.c_str(), &hints, &found);
  if (failed != 0) throw Failure("ssh_connect", options.host, "", gai_strerror(failed));
  const Addresses addresses(found);

  int left = 0;
  for (const addrinfo* address = found; address != nullptr; address = address->ai_next) ++left;
  int error = 0;
  for (const addrinfo* address = found; address != nullptr; address = address->ai_next, --left) {
    const Deadline share(milliseconds(deadline.Left() / left));
    if (pnl_file::Fd fd = ConnectTo(*address, share, error)) return fd;
  }
  throw Failure("ssh_connect", options.host, "", pnl_err::System("", "", error).param("errmsg"));
}

/// The socket that libssh works on. libssh closes it in some of its failures and leaves it open in
/// the others and when it disconnects: what is left is found by the inode, for the number may be
/// another thread's by now.
class Socket {
 public:
  explicit Socket(pnl_file::Fd fd) : fd_(std::move(fd)), inode_(Inode()) {}
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket() {
    if (Inode() != inode_) fd_.Release();
  }
  int Get() const { return fd_.Get(); }

 private:
  ino_t Inode() const {
    struct stat info {};
    return fstat(fd_.Get(), &info) == 0 ? info.st_ino : 0;
  }
  pnl_file::Fd fd_;
  ino_t inode_;
};

// --- Login

/// As the kernel tells it, on every architecture.
bool ProcessorHasAes() {
  static const bool has_aes = [] {
    try {
      std::string flags = pnl_file::Read("/proc/cpuinfo");
      std::replace(flags.begin(), flags.end(), '\n', ' ');
      return flags.find(" aes ") != std::string::npos;
    } catch (const pnl_err::Error&) {
      return false;
    }
  }();
  return has_aes;
}

/// There is nobody to ask for a pass phrase; without this answer OpenSSL asks on the terminal.
int NoPassPhrase(const char*, char*, std::size_t, int, int, void*) {
  return -1;
}

ssh_callbacks SessionCallbacks() {
  static ssh_callbacks_struct callbacks = [] {
    ssh_callbacks_struct made{};
    ssh_callbacks_init(&made);
    made.auth_function = NoPassPhrase;
    return made;
  }();
  return &callbacks;
}

void Set(const Session& session, ssh_options_e option, const void* value) {
  if (ssh_options_set(session.get(), option, value) == SSH_OK) return;
  throw std::runtime_error(ssh_get_error(session.get()));
}

void SetOptions(const Session& session, const SshOptions& options, int fd) {
  // The user's and the host's ssh configuration are for people: a Host section there must not send
  // the panel elsewhere.
  const bool no = false;
  Set(session, SSH_OPTIONS_PROCESS_CONFIG, &no);
  Set(session, SSH_OPTIONS_GLOBAL_KNOWNHOSTS, "/dev/null");
  if (!options.known_hosts.empty()) {
    Set(session, SSH_OPTIONS_KNOWNHOSTS, options.known_hosts.c_str());
  }
  Set(session, SSH_OPTIONS_HOST, options.host.c_str());
  Set(session, SSH_OPTIONS_PORT, &options.port);
  Set(session, SSH_OPTIONS_USER, options.user.c_str());
  Set(session, SSH_OPTIONS_FD, &fd);
  if (!ProcessorHasAes()) return;
  constexpr auto kCiphers =
      "aes256-gcm@openssh.com,aes128-gcm@openssh.com,chacha20-poly1305@openssh.com,"
      "aes256-ctr,aes192-ctr,aes128-ctr";
  Set(session, SSH_OPTIONS_CIPHERS_C_S, kCiphers);
  Set(session, SSH_OPTIONS_CIPHERS_S_C, kCiphers);
}

std::string Fingerprint(const Session& session) {
  ssh_key key = nullptr;
  if (ssh_get_server_publickey(session.get(), &key) != SSH_OK) return "";
  const Key owned_key(key);
  unsigned char* bytes = nullptr;
  std::size_t size = 0;
  if (ssh_get_publickey_hash(key, SSH_PUBLICKEY_HASH_SHA256, &bytes, &size) != SSH_OK) return "";
  const Hash hash(bytes);
  const Text text(ssh_get_fingerprint_hash(SSH_PUBLICKEY_HASH_SHA256, bytes, size));
  return text ? text.get() : "";
}

/// One write(2) at the end of the file, so that others may do the same at the same time. A last
/// line without line end must not swallow the new one.
void AppendLine(const std::string& path, std::string line) {
  const pnl_file::Fd fd = pnl_file::Open(path, O_RDWR | O_APPEND | O_CREAT, 0600);
  const off_t size = lseek(fd.Get(), 0, SEEK_END);
  char last = '\n';
  if (size > 0 && pread(fd.Get(), &last, 1, size - 1) == 1 && last != '\n') line.insert(0, "\n");
  if (line.back() != '\n') line += '\n';
  pnl_file::WriteAll(fd.Get(), line, path);
}

void AddKnownHost(const Session& session) {
  char* path = nullptr;
  char* line = nullptr;
  if (ssh_options_get(session.get(), SSH_OPTIONS_KNOWNHOSTS, &path) != SSH_OK) {
    throw std::runtime_error("no known_hosts file");
  }
  const Text owned_path(path);
  if (ssh_session_export_known_hosts_entry(session.get(), &line) != SSH_OK) {
    throw std::runtime_error(ssh_get_error(session.get()));
  }
  const Text owned_line(line);
  const std::string folder = pnl_file::Folder(path);
  if (!folder.empty()) pnl_file::MkDir(folder);
  AppendLine(path, line);
}

/// Why the key of the node is refused; "" when it is not.
std::string HostKeyRefusal(const Session& session, HostKeys policy) {
  switch (ssh_session_is_known_server(session.get())) {
    case SSH_KNOWN_HOSTS_OK:
      return "";
    case SSH_KNOWN_HOSTS_CHANGED:
      return "the host key has changed, it is now " + Fingerprint(session);
    case SSH_KNOWN_HOSTS_OTHER:
      return "the host was known by a key of another type, it is now " + Fingerprint(session);
    case SSH_KNOWN_HOSTS_ERROR:
      return ssh_get_error(session.get());
    case SSH_KNOWN_HOSTS_NOT_FOUND:
    case SSH_KNOWN_HOSTS_UNKNOWN:
      break;
  }
  if (policy == HostKeys::kStrict) return "unknown host key " + Fingerprint(session);
  AddKnownHost(session);
  return "";
}

/// Throws std::runtime_error with the reason.
Key ReadKey(const std::string& path) {
  if (access(path.c_str(), R_OK) != 0) {
    throw std::runtime_error(path + ": " + pnl_err::System("", "", errno).param("errmsg"));
  }
  ssh_key key = nullptr;
  if (ssh_pki_import_privkey_file(path.c_str(), nullptr, NoPassPhrase, nullptr, &key) != SSH_OK) {
    throw std::runtime_error(path + ": no private key without a pass phrase");
  }
  return Key(key);
}

/// RFC 4254 6.10: the name without "SIG"; 255, as ssh(1), for one that is not known here.
int ExitCodeOfSignal(std::string_view name) {
  for (int number = 1; number < 32; ++number) {
    const char* abbreviation = sigabbrev_np(number);
    if (abbreviation != nullptr && name == abbreviation) return 128 + number;
  }
  return 255;
}

}  // namespace

// --- Connection

/// A session that is logged in. libssh is used without blocking: what waits is this class, so that
/// one clock decides how long.
class SSH::Connection {
 public:
  Connection(const SshOptions& options, const Deadline& deadline);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  ssh_session Get() const { return session_.get(); }
  const std::string& Host() const { return host_; }
  void SetTimeout(int seconds) { timeout_ = std::chrono::seconds(std::max(seconds, 1)); }

  /// Lets libssh send and receive until `done`; throws ssh_closed or ssh_timeout.
  template <class Done>
  void Await(const std::string& command, Done done) {
    BeginWait();
    while (!done()) Step(command);
  }
  void BeginWait() { life_ = asked_ = Clock::now(); }
  /// One event, or `limit` milliseconds without any.
  void Step(const std::string& command, int limit = INT_MAX);
  void ThrowIfLost(const std::string& command);
  bool Lost() const { return lost_ || (ssh_get_status(Get()) & (SSH_CLOSED | SSH_CLOSED_ERROR)); }
  /// Whether libssh has nothing left to send.
  bool Flushed() const { return (ssh_get_status(Get()) & SSH_WRITE_PENDING) == 0; }

  std::weak_ptr<Command> running;
  std::optional<int> last_exit_code;  ///< of the command that ended last

 private:
  void LogIn(const SshOptions& options, const Deadline& deadline);
  int TryKeys(const SshOptions& options, const Deadline& deadline);
  template <class Call>
  int Repeat(const Deadline& deadline, Call call);
  void AskForLife();
  void Lose(std::string_view reason);

  std::string host_;
  Socket socket_;  // outlives the session, which may close it
  ssh_counter_struct received_{};
  Session session_;
  Event event_;

  milliseconds timeout_ = std::chrono::seconds(kDefaultTimeout);
  std::uint64_t seen_ = 0;   // how much was received at the last look
  Clock::time_point life_;   // the last sign of it, or the begin of the wait
  Clock::time_point asked_;  // when a sign was asked for last
  std::optional<std::string> lost_;
};

SSH::Connection::Connection(const SshOptions& options, const Deadline& deadline)
    : host_(options.host),
      socket_(ConnectTo(options, deadline)),
      session_(ssh_new()),
      event_(ssh_event_new()) {
  if (!session_ || !event_) throw std::bad_alloc();
  try {
    SetOptions(session_, options, socket_.Get());
  } catch (const std::runtime_error& error) {
    throw Failure("ssh_connect", host_, "", error.what());
  }
  ssh_set_callbacks(Get(), SessionCallbacks());
  ssh_set_counters(Get(), &received_, nullptr);
  ssh_set_blocking(Get(), 0);
  LogIn(options, deadline);
  ssh_event_add_session(event_.get(), Get());
  PNL_TRACE(log_module, "%s: logged in, cipher %s", host_.c_str(), ssh_get_cipher_out(Get()));
}

SSH::Connection::~Connection() {
  if (event_ && session_) ssh_event_remove_session(event_.get(), Get());
  if (session_ && !lost_) ssh_disconnect(Get());
}

/// Calls until libssh no longer says "again".
template <class Call>
int SSH::Connection::Repeat(const Deadline& deadline, Call call) {
  for (;;) {
    const int result = call();
    if (result != SSH_AGAIN) return result;
    const bool write = (ssh_get_poll_flags(Get()) & SSH_WRITE_PENDING) != 0;
    const auto events = static_cast<short>(write ? POLLIN | POLLOUT : POLLIN);
    if (!Ready(socket_.Get(), events, deadline)) {
      throw Failure("ssh_connect", host_, "", "no login within the time-out");
    }
  }
}

void SSH::Connection::LogIn(const SshOptions& options, const Deadline& deadline) {
  if (Repeat(deadline, [this] { return ssh_connect(Get()); }) != SSH_OK) {
    throw Failure("ssh_connect", host_, "", ssh_get_error(Get()));
  }
  std::string refusal;
  try {
    refusal = HostKeyRefusal(session_, options.host_keys);
  } catch (const std::exception& error) {
    refusal = error.what();
  }
  if (!refusal.empty()) throw Failure("ssh_hostkey", host_, "", refusal);

  try {
    if (TryKeys(options, deadline) == SSH_AUTH_SUCCESS) return;
  } catch (const std::runtime_error& error) {
    throw Failure("ssh_auth", host_, "", error.what());
  }
  const std::string_view reason = ssh_get_error(Get());
  throw Failure("ssh_auth", host_, "", reason.empty() ? "there is no key to log in with" : reason);
}

int SSH::Connection::TryKeys(const SshOptions& options, const Deadline& deadline) {
  Key key;
  if (!options.key_file.empty()) key = ReadKey(options.key_file);
  return Repeat(deadline, [&] {
    const int result = key ? ssh_userauth_publickey(Get(), nullptr, key.get())
                           : ssh_userauth_publickey_auto(Get(), nullptr, nullptr);
    return result == SSH_AUTH_AGAIN ? SSH_AGAIN : result;
  });
}

// --- Waiting

void SSH::Connection::ThrowIfLost(const std::string& command) {
  if (!lost_ && Lost()) Lose(ssh_get_error(Get()));
  if (lost_) throw Failure("ssh_closed", host_, command, *lost_);
}

/// Closes the connection but for the descriptor, which libssh still knows; -1 when it does not.
void SSH::Connection::Lose(std::string_view reason) {
  lost_ = reason;
  shutdown(ssh_get_fd(Get()), SHUT_RDWR);
}

/// While a request is unanswered libssh sends no other, and the first call after an answer only
/// takes note of that.
void SSH::Connection::AskForLife() {
  ssh_send_keepalive(Get());
  ssh_send_keepalive(Get());
  asked_ = Clock::now();
}

void SSH::Connection::Step(const std::string& command, int limit) {
  ThrowIfLost(command);
  const auto now = Clock::now();
  if (received_.in_bytes != seen_) life_ = now;
  seen_ = received_.in_bytes;
  if (now - life_ >= timeout_) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout_).count();
    Lose("no sign of life for " + std::to_string(seconds) + " s");
    throw Failure("ssh_timeout", host_, command, *lost_);
  }
  const milliseconds pause = timeout_ / 4;
  if (now - std::max(life_, asked_) >= pause) AskForLife();
  const auto next = std::min(life_ + timeout_, std::max(life_, asked_) + pause);
  const auto wait = std::chrono::ceil<milliseconds>(next - now).count();

  const int poll_time = static_cast<int>(std::clamp<long long>(wait, 0, limit));
  if (ssh_event_dopoll(event_.get(), poll_time) == SSH_ERROR) Lose(ssh_get_error(Get()));
}

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
  std::string Str();
  int Result();
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

  /// What is done with standard output that arrives.
  enum class Arriving {
    kStays,        // with libssh, whose window then stops the node
    kKept,         // so that the command never stands still
    kKeptIfSmall,  // else dropped
  };

  static int OnData(ssh_session, ssh_channel, void* data, std::uint32_t size, int is_stderr,
                    void* self) noexcept;
  static void OnEnd(ssh_session, ssh_channel, void* self) noexcept;
  static void OnClose(ssh_session, ssh_channel, void* self) noexcept;
  static void OnExit(ssh_session, ssh_channel, int code, void* self) noexcept;
  static void OnSignal(ssh_session, ssh_channel, const char* name, int, const char*, const char*,
                       void* self) noexcept;

  template <class Call>
  bool Done(Call call);
  bool Send(std::string_view data);
  std::size_t Read(char* to, std::size_t size);
  std::size_t Take(char* to, std::size_t size);
  void Collect(Arriving arriving);
  void Keep(std::string_view data);
  void WaitEnd();
  void ThrowIfLost();
  void ThrowIfDropped() const;
  void ThrowIfCut() const;
  pnl_err::Error Failed(std::string_view type, std::string_view reason) const {
    return Failure(type, connection_->Host(), text_, reason);
  }
  template <class Done>
  void Await(Done done) {
    connection_->Await(text_, done);
  }

  const std::shared_ptr<Connection> connection_;
  const std::string text_;
  ssh_channel_callbacks_struct callbacks_{};
  Channel channel_;  // empty: given up

  Arriving arriving_ = Arriving::kStays;
  std::size_t waiting_ = 0;  // standard output that libssh holds
  std::string kept_;         // the output before that
  bool dropped_ = false;     // there was more of it than could be kept
  std::optional<pnl_err::Error> untold_;
  bool started_ = false;
  bool in_closed_ = false;
  bool out_ended_ = false;
  bool closed_ = false;  // by the node, or given up
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
    channel_.reset(ssh_channel_new(connection_->Get()));
    if (!channel_) throw std::bad_alloc();
    ssh_set_channel_callbacks(channel_.get(), &callbacks_);
    open = Done([this] { return ssh_channel_open_session(channel_.get()); });
  }
  if (!open || !Done([this] { return ssh_channel_request_exec(channel_.get(), text_.c_str()); })) {
    throw Failed("ssh_exec", ssh_get_error(connection_->Get()));
  }
  started_ = true;
  PNL_TRACE(log_module, "[%s] %s", connection_->Host().c_str(), text_.c_str());
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
  if (is_stderr == 0 && command.arriving_ == Arriving::kStays) {
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
  Collect(Arriving::kKept);
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
  arriving_ = Arriving::kStays;
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
  if (got <= 0) throw Failed("ssh_closed", ssh_get_error(connection_->Get()));
  waiting_ -= static_cast<std::size_t>(got);
  return static_cast<std::size_t>(got);
}

void SSH::Command::ThrowIfLost() {
  if (untold_) throw pnl_err::Error(*std::exchange(untold_, std::nullopt));
  if (!closed_) connection_->ThrowIfLost(text_);
}

void SSH::Command::ThrowIfDropped() const {
  if (dropped_) throw Failed("ssh_exec", "there was too much output to be kept");
}

void SSH::Command::ThrowIfCut() const {
  if (closed_ && !exit_code_) throw Failed("ssh_closed", "the node ended it without an exit code");
}

/// From now on no output stays with libssh.
void SSH::Command::Collect(Arriving arriving) {
  std::string block;
  while (waiting_ > 0 && channel_) {
    block.resize(waiting_);
    block.resize(Take(block.data(), block.size()));
    Keep(block);
  }
  arriving_ = arriving;
}

void SSH::Command::Keep(std::string_view data) {
  if (arriving_ == Arriving::kKeptIfSmall && kept_.size() + data.size() > kKeptByResult) {
    dropped_ = true;
  }
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

std::string SSH::Command::Str() {
  CloseIn();
  Collect(Arriving::kKept);
  Await([this] { return out_ended_ || closed_; });
  WaitEnd();
  ThrowIfDropped();
  std::string text = out_buffer_.TakeRest();
  if (text.empty()) return std::exchange(kept_, {});
  return text += std::exchange(kept_, {});
}

int SSH::Command::Result() {
  CloseIn();
  if (!waited_) Collect(Arriving::kKeptIfSmall);
  WaitEnd();
  return *exit_code_;
}

void SSH::Command::End() noexcept {
  if (!channel_) return;
  try {
    if (started_) Result();
  } catch (const std::exception& error) {
    PNL_LOG(log_module, 3, "%s", error.what());
  }
  connection_->last_exit_code = exit_code_;
  // The channel itself lives on until the node has closed it, too.
  ssh_remove_channel_callbacks(channel_.get(), &callbacks_);
  channel_.reset();
  closed_ = in_closed_ = true;
  waiting_ = 0;
}

// --- The session as the caller sees it

SSH::SSH(const SshOptions& options)
    : connection_(std::make_shared<Connection>(
          options, Deadline(std::chrono::seconds(options.connect_timeout)))) {}
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
  throw Failure("ssh_exec", connection_->Host(), "", "no command has run to its end");
}

std::shared_ptr<SSH::Command> SSH::Running() const {
  if (auto command = Latest()) return command;
  connection_->ThrowIfLost("");
  throw Failure("ssh_exec", connection_->Host(), "", "no command is running");
}

int SSH::Result() {
  if (const auto command = Latest()) return command->Result();
  ThrowIfNoneEnded();
  return *connection_->last_exit_code;
}

std::string SSH::Str() {
  if (const auto command = Latest()) return command->Str();
  ThrowIfNoneEnded();
  return "";
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
