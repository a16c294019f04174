#include "pnl/ssh_session.h"

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
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "pnl/known_hosts.h"
#include "pnl/log.h"
#include "pnl/str.h"

namespace pnl_rpc {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

pnl_log::Module log_module("ssh");

constexpr seconds kDefaultTimeout{60};

template <auto kFree>
struct FreeWith {
  template <class Thing>
  void operator()(Thing* thing) const {
    kFree(thing);
  }
};
using Key = std::unique_ptr<ssh_key_struct, FreeWith<ssh_key_free>>;
using Text = std::unique_ptr<char, FreeWith<ssh_string_free_char>>;
using Addresses = std::unique_ptr<addrinfo, FreeWith<freeaddrinfo>>;

pnl_err::Error NotConnected(const std::string& host, std::string_view reason) {
  return pnl_err::Error(kSshConnect, host).add_param("reason", reason);
}

/// False when the time is up.
bool Ready(int fd, short events, const Deadline& deadline) {
  pollfd ready{fd, events, 0};
  while (!deadline.Passed()) {
    const int count = poll(&ready, 1, deadline.Left());
    if (count > 0) return true;
    if (count < 0 && errno != EINTR) return false;
  }
  return false;
}

// --- The way to the node

/// Close-on-exec and non-blocking; the error number goes to `error`.
pnl_file::Fd ConnectTo(const addrinfo& address, const Deadline& deadline, int& error) {
  pnl_file::Fd fd(socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  error = errno;
  if (!fd) return fd;
  // Many small packets: Nagle's algorithm would delay each by 40 ms.
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
  constexpr int kMaxPort = 65535;
  const std::string port = std::to_string(options.port);
  if (options.port < 1 || options.port > kMaxPort) {
    throw NotConnected(options.host, "there is no port " + port + ", only 1 to 65535");
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int failed = getaddrinfo(options.host.c_str(), port.c_str(), &hints, &found);
  if (failed != 0) throw NotConnected(options.host, gai_strerror(failed));
  const Addresses addresses(found);

  int left = 0;
  for (const addrinfo* address = found; address != nullptr; address = address->ai_next) ++left;
  int error = 0;
  for (const addrinfo* address = found; address != nullptr; address = address->ai_next, --left) {
    const Deadline share(milliseconds(deadline.Left() / left));
    if (pnl_file::Fd fd = ConnectTo(*address, share, error)) return fd;
  }
  throw NotConnected(options.host, pnl_err::Message(error));
}

// --- What logging in takes

/// The received bytes, counted by the kernel.
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

/// Refuses the pass phrase: without this callback OpenSSL would prompt on the terminal.
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

/// The reason why a file of this host could not be used.
std::string FileReason(const pnl_err::Error& error) {
  return "cannot " + error.object() + " '" + error.value() + "': " + error.param("errmsg");
}

/// Throws "file", or std::runtime_error with the reason. The file is not read by libssh: it would
/// take an unreadable file for a missing key.
Key ReadKey(const std::string& path) {
  const std::string text = pnl_file::ReadE(path);
  ssh_key key = nullptr;
  if (ssh_pki_import_privkey_base64(text.c_str(), nullptr, NoPassPhrase, nullptr, &key) != SSH_OK) {
    throw std::runtime_error(path + ": no private key without a pass phrase");
  }
  return Key(key);
}

}  // namespace

// --- Socket

Socket::Socket(pnl_file::Fd fd) : fd_(std::move(fd)), inode_(Inode()) {}

Socket::~Socket() {
  if (Inode() != inode_) fd_.Release();
}

void Socket::Unblock() const {
  fcntl(fd_.Get(), F_SETFL, fcntl(fd_.Get(), F_GETFL) | O_NONBLOCK);
}

/// A direct system call: another thread may have the number by now, and the thread sanitizer
/// reports fstat(3) for that.
ino_t Socket::Inode() const {
  struct stat info {};
  return syscall(SYS_fstat, fd_.Get(), &info) == 0 ? info.st_ino : 0;
}

// --- Begin and end

void Session::Freer::operator()(ssh_session_struct* session) const {
  ssh_free(session);
}

void Session::Freer::operator()(ssh_event_struct* event) const {
  ssh_event_free(event);
}

Session::Session(const SshOptions& options)
    : Session(options, Deadline(seconds(options.connect_timeout))) {}

Session::Session(const SshOptions& options, const Deadline& deadline)
    : host_(options.host),
      socket_(ConnectTo(options, deadline)),
      received_(std::make_unique<ssh_counter_struct>()),
      session_(ssh_new()),
      event_(ssh_event_new()),
      timeout_(kDefaultTimeout) {
  if (!session_ || !event_) throw std::bad_alloc();
  SetOptions(options);
  try {
    if (!options.known_hosts.empty()) static_cast<void>(known_hosts::Read(options.known_hosts));
    Connect(deadline);
    CheckHostKey(options);
  } catch (const pnl_err::Error& error) {
    if (error.type() != pnl_err::kFile) throw;
    throw Failure(kSshHostKey, "", FileReason(error));
  }
  LogIn(options.key_file, deadline);
  ssh_event_add_session(event_.get(), Get());
  PNL_TRACE(log_module, "[%s] logged in, cipher %s", host_.c_str(), ssh_get_cipher_out(Get()));
}

Session::~Session() {
  ssh_event_remove_session(event_.get(), Get());
  if (!lost_) ssh_disconnect(Get());
}

pnl_err::Error Session::Failure(std::string_view type, std::string_view command,
                                std::string_view reason) const {
  return pnl_err::Error(type, host_, str::WithoutCredentials(command)).add_param("reason", reason);
}

std::string Session::Reason() const {
  return ssh_get_error(Get());
}

void Session::SetTimeout(int length) {
  timeout_ = seconds(std::max(length, 1));
}

// --- Login

void Session::SetOption(int option, const void* value) {
  if (ssh_options_set(Get(), static_cast<ssh_options_e>(option), value) == SSH_OK) return;
  throw Failure(kSshConnect, "", Reason());
}

void Session::SetOptions(const SshOptions& options) {
  // Ignores the ssh configuration of the user and the host: a Host section there must not send the
  // panel to another host.
  const bool no = false;
  SetOption(SSH_OPTIONS_PROCESS_CONFIG, &no);
  SetOption(SSH_OPTIONS_GLOBAL_KNOWNHOSTS, "/dev/null");
  if (!options.known_hosts.empty()) {
    SetOption(SSH_OPTIONS_KNOWNHOSTS, options.known_hosts.c_str());
  }
  const int fd = socket_.Get();
  SetOption(SSH_OPTIONS_FD, &fd);
  SetOption(SSH_OPTIONS_HOST, options.host.c_str());
  SetOption(SSH_OPTIONS_PORT, &options.port);
  SetOption(SSH_OPTIONS_USER, options.user.c_str());
  if (ProcessorHasAes()) {
    constexpr auto kCiphers =
        "aes256-gcm@openssh.com,aes128-gcm@openssh.com,chacha20-poly1305@openssh.com,"
        "aes256-ctr,aes192-ctr,aes128-ctr";
    SetOption(SSH_OPTIONS_CIPHERS_C_S, kCiphers);
    SetOption(SSH_OPTIONS_CIPHERS_S_C, kCiphers);
  }
  ssh_set_callbacks(Get(), SessionCallbacks());
  ssh_set_counters(Get(), received_.get(), nullptr);
  ssh_set_blocking(Get(), 0);
}

/// Calls until libssh no longer says "again".
template <class Call>
int Session::Repeat(const Deadline& deadline, Call call) {
  for (;;) {
    const int result = call();
    if (result != SSH_AGAIN) return result;
    const bool write = (ssh_get_poll_flags(Get()) & SSH_WRITE_PENDING) != 0;
    const auto events = static_cast<short>(write ? POLLIN | POLLOUT : POLLIN);
    if (!Ready(socket_.Get(), events, deadline)) {
      throw Failure(kSshConnect, "", "no login within the time-out");
    }
  }
}

void Session::Connect(const Deadline& deadline) {
  if (Repeat(deadline, [this] { return ssh_connect(Get()); }) != SSH_OK) {
    throw Failure(kSshConnect, "", Reason());
  }
  socket_.Unblock();
}

/// Not with libssh: it supports neither revoked keys nor negated patterns.
void Session::CheckHostKey(const SshOptions& options) {
  char* path = nullptr;
  if (ssh_options_get(Get(), SSH_OPTIONS_KNOWNHOSTS, &path) != SSH_OK) {
    throw Failure(kSshHostKey, "", Reason());
  }
  const Text owned_path(path);
  ssh_key key = nullptr;
  if (ssh_get_server_publickey(Get(), &key) != SSH_OK) throw Failure(kSshHostKey, "", Reason());
  const Key owned_key(key);
  const std::string host = known_hosts::NameOf(options.host, options.port);
  switch (known_hosts::LookUp(known_hosts::Read(path), host, key)) {
    case known_hosts::Answer::kKnown:
      return;
    case known_hosts::Answer::kRevoked:
      throw Failure(kSshHostKey, "", "the host key " + Fingerprint() + " is revoked");
    case known_hosts::Answer::kChanged:
      throw Failure(kSshHostKey, "", "the host key has changed, it is now " + Fingerprint());
    case known_hosts::Answer::kUnknown:
      break;
  }
  if (options.host_keys == HostKeys::kStrict) {
    throw Failure(kSshHostKey, "", "unknown host key " + Fingerprint());
  }
  AddKnownHost(path);
}

std::string Session::Fingerprint() const {
  ssh_key key = nullptr;
  if (ssh_get_server_publickey(Get(), &key) != SSH_OK) return "";
  const Key owned(key);
  unsigned char* hash = nullptr;
  std::size_t size = 0;
  if (ssh_get_publickey_hash(key, SSH_PUBLICKEY_HASH_SHA256, &hash, &size) != SSH_OK) return "";
  const Text text(ssh_get_fingerprint_hash(SSH_PUBLICKEY_HASH_SHA256, hash, size));
  ssh_clean_pubkey_hash(&hash);
  return text ? text.get() : "";
}

void Session::AddKnownHost(const std::string& path) {
  char* line = nullptr;
  if (ssh_session_export_known_hosts_entry(Get(), &line) != SSH_OK) {
    throw Failure(kSshHostKey, "", Reason());
  }
  const Text owned_line(line);
  const std::string folder = pnl_file::Folder(path);
  if (!folder.empty()) pnl_file::MkDir(folder);
  known_hosts::Append(path, line);
}

void Session::LogIn(const std::string& key_file, const Deadline& deadline) {
  Key key;
  try {
    if (!key_file.empty()) key = ReadKey(key_file);
  } catch (const pnl_err::Error& error) {
    throw Failure(kSshAuth, "", FileReason(error));
  } catch (const std::runtime_error& error) {
    throw Failure(kSshAuth, "", error.what());
  }
  const int result = Repeat(deadline, [&] {
    const int done = key ? ssh_userauth_publickey(Get(), nullptr, key.get())
                         : ssh_userauth_publickey_auto(Get(), nullptr, nullptr);
    return done == SSH_AUTH_AGAIN ? SSH_AGAIN : done;
  });
  if (result == SSH_AUTH_SUCCESS) return;
  const std::string reason = Reason();
  // A node answers a refusal before it closes the connection.
  if (Lost() && ssh_get_disconnect_message(Get()) == nullptr) {
    throw Failure(kSshConnect, "", reason);
  }
  throw Failure(kSshAuth, "", reason.empty() ? "no key was accepted" : reason);
}

// --- Waiting

void Session::BeginWait() {
  life_ = asked_ = Clock::now();
}

bool Session::Lost() const {
  return lost_ || (ssh_get_status(Get()) & (SSH_CLOSED | SSH_CLOSED_ERROR)) != 0;
}

bool Session::Flushed() const {
  return (ssh_get_status(Get()) & SSH_WRITE_PENDING) == 0;
}

void Session::ThrowIfLost(const std::string& command) {
  if (!lost_ && Lost()) Lose(Reason());
  if (lost_) throw Failure(kSshClosed, command, *lost_);
}

/// Shuts the connection down but keeps the descriptor, because libssh still uses it; -1 when it
/// does not.
void Session::Lose(std::string_view reason) {
  lost_ = reason;
  shutdown(ssh_get_fd(Get()), SHUT_RDWR);
}

/// While a request is unanswered libssh sends no other, and the first call after an answer only
/// processes it.
void Session::AskForLife() {
  ssh_send_keepalive(Get());
  ssh_send_keepalive(Get());
  asked_ = Clock::now();
}

void Session::Step(const std::string& command, int limit) {
  ThrowIfLost(command);
  const auto now = Clock::now();
  // Any data since the last check counts, also data that came while a request was sent.
  if (received_->in_bytes != seen_) life_ = now;
  seen_ = received_->in_bytes;
  if (now - life_ >= timeout_) {
    Lose("no sign of life for " + std::to_string(timeout_ / seconds(1)) + " s");
    throw Failure(kSshTimeout, command, *lost_);
  }
  const milliseconds pause = timeout_ / 4;
  if (now - std::max(life_, asked_) >= pause) AskForLife();
  const auto next = std::min(life_ + timeout_, std::max(life_, asked_) + pause);
  const auto wait = std::chrono::ceil<milliseconds>(next - now).count();

  const int poll_time = static_cast<int>(std::clamp<long long>(wait, 0, limit));
  if (ssh_event_dopoll(event_.get(), poll_time) == SSH_ERROR) Lose(Reason());
}

}  // namespace pnl_rpc
