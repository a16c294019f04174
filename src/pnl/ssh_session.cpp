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
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>
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

pnl_err::Error NotConnected(const SshOptions& options, std::string_view reason) {
  return pnl_err::Error(kSshConnect, NameOf(options)).add_param("reason", reason);
}

bool Stopped(const SshOptions& options) {
  return (options.stop && options.stop->Raised()) || Deadline::Clock::now() >= options.deadline;
}

pnl_err::Error NotInTime(const SshOptions& options, std::string_view reason) {
  if (!Stopped(options)) return NotConnected(options, reason);
  return pnl_err::Error(kSshStopped, NameOf(options))
      .add_param("reason", "stopped while connecting");
}

/// False when the time is up, or `stop` is raised.
bool Ready(int fd, short events, const Deadline& deadline, const pnl_thread::Event* stop) {
  pollfd ready[] = {{fd, events, 0}, {stop != nullptr ? stop->Fd() : -1, POLLIN, 0}};
  while (!deadline.Passed()) {
    const int count = poll(ready, std::size(ready), deadline.Left());
    if (count > 0) return ready[1].revents == 0;
    if (count < 0 && errno != EINTR) return false;
  }
  return false;
}

// --- The way to the node

/// getaddrinfo(3) and its error code.
int LookUp(const std::string& host, const std::string& port, int flags, Addresses& found) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV | flags;
  addrinfo* list = nullptr;
  const int failed = getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
  if (failed == 0) found.reset(list);
  return failed;
}

/// A name service may take a minute, and cannot be told to stop: who gives up leaves it to a thread
/// of its own.
struct Lookup {
  int failed = 0;
  Addresses found = {};
  pnl_thread::Event done = {};
};

std::shared_ptr<Lookup> LookUpName(const SshOptions& options, const std::string& port,
                                   const Deadline& deadline) {
  std::shared_ptr<Lookup> lookup;
  std::thread thread;
  try {
    lookup = std::make_shared<Lookup>();
    thread = std::thread([lookup, host = options.host, port] {
      lookup->failed = LookUp(host, port, 0, lookup->found);
      lookup->done.Raise();
    });
  } catch (const std::exception& error) {
    throw NotConnected(options, error.what());
  }
  if (Ready(lookup->done.Fd(), POLLIN, deadline, options.stop.get())) {
    thread.join();
    return lookup;
  }
  thread.detach();
  throw NotInTime(options, "the name service does not answer");
}

Addresses Resolve(const SshOptions& options, const std::string& port, const Deadline& deadline) {
  Addresses found;
  int failed = LookUp(options.host, port, AI_NUMERICHOST, found);
  if (failed == EAI_NONAME) {
    const std::shared_ptr<Lookup> lookup = LookUpName(options, port, deadline);
    failed = lookup->failed;
    found = std::move(lookup->found);
  }
  if (failed != 0) throw NotConnected(options, gai_strerror(failed));
  return found;
}

/// Close-on-exec and non-blocking; the error number goes to `error`.
pnl_file::Fd ConnectTo(const addrinfo& address, const Deadline& deadline,
                       const pnl_thread::Event* stop, int& error) {
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
  if (!Ready(fd.Get(), POLLOUT, deadline, stop)) return {};
  socklen_t size = sizeof error;
  getsockopt(fd.Get(), SOL_SOCKET, SO_ERROR, &error, &size);
  return error == 0 ? std::move(fd) : pnl_file::Fd();
}

/// Tries the addresses of the host one after the other, none for longer than its share of the time.
pnl_file::Fd ConnectTo(const SshOptions& options, const Deadline& deadline) {
  constexpr int kMaxPort = 65535;
  const std::string port = std::to_string(options.port);
  if (options.port < 1 || options.port > kMaxPort) {
    throw NotConnected(options, "there is no port " + port + ", only 1 to 65535");
  }
  const Addresses found = Resolve(options, port, deadline);
  int left = 0;
  for (const addrinfo* address = found.get(); address != nullptr; address = address->ai_next)
    ++left;
  int error = 0;
  const addrinfo* address = found.get();
  for (; address != nullptr && !Stopped(options); address = address->ai_next, --left) {
    const Deadline share(milliseconds(deadline.Left() / left));
    if (pnl_file::Fd fd = ConnectTo(*address, share, options.stop.get(), error)) return fd;
  }
  throw NotInTime(options, pnl_err::Message(error));
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

/// A key file. `key` is empty if only the agent can use it.
struct KeyFile {
  Key key = {};
  bool for_agent = false;
};

/// Throws "file", or std::runtime_error with the reason. The file is not read by libssh: it would
/// take an unreadable file for a missing key.
KeyFile ReadKey(const std::string& path) {
  const std::string text = pnl_file::ReadE(path);
  const auto note = [](const char*, char*, std::size_t, int, int, void* has_phrase) {
    *static_cast<bool*>(has_phrase) = true;
    return -1;
  };
  bool has_phrase = false;
  ssh_key key = nullptr;
  if (ssh_pki_import_privkey_base64(text.c_str(), nullptr, note, &has_phrase, &key) == SSH_OK)
    return {.key = Key(key)};
  const auto type = ssh_key_type_from_name(text.substr(0, text.find(' ')).c_str());
  if (has_phrase || type != SSH_KEYTYPE_UNKNOWN) return {.for_agent = true};
  throw std::runtime_error(path + ": no private key");
}

/// A connection to the SSH agent, for libssh, which waits for answers without a limit: this shuts
/// the connection down when the time is up or `stop` is raised.
class Agent {
 public:
  Agent(const Deadline& deadline, const pnl_thread::Event* stop) : fd_(Open()) {
    if (fd_) watch_ = std::jthread([this, deadline, stop] { Watch(deadline, stop); });
  }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;
  ~Agent() { done_.Raise(); }

  bool IsThere() const { return static_cast<bool>(fd_); }
  /// Whether there should be one, but it takes no connection.
  bool IsBroken() const { return !fd_ && !Path().empty(); }
  /// Lets the session use a copy of the connection, which the session closes.
  void GiveTo(ssh_session session) {
    ssh_set_agent_socket(session, fcntl(fd_.Get(), F_DUPFD_CLOEXEC, 0));
  }

 private:
  static std::string Path() {
    const char* const path = std::getenv("SSH_AUTH_SOCK");
    return path == nullptr ? "" : path;
  }
  static pnl_file::Fd Open() {
    const std::string path = Path();
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof address.sun_path) return {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    // Not blocking: a full backlog would wait without a limit.
    pnl_file::Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
      return {};
    fcntl(fd.Get(), F_SETFL, 0);
    return fd;
  }

  void Watch(const Deadline& deadline, const pnl_thread::Event* stop) const {
    if (!Ready(done_.Fd(), POLLIN, deadline, stop)) shutdown(fd_.Get(), SHUT_RDWR);
  }

  const pnl_file::Fd fd_;
  pnl_thread::Event done_;
  std::jthread watch_;  // joined first
};

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

Session::Session(const SshOptions& options, OnlyKeys)
    : options_(options),
      login_(seconds(options.connect_timeout), options.deadline),
      relay_(options.jumps.empty() ? nullptr : std::make_unique<Relay>(options)),
      socket_(relay_ ? relay_->TakeSocket() : ConnectTo(options, login_)),
      received_(std::make_unique<ssh_counter_struct>()),
      session_(ssh_new()),
      event_(ssh_event_new()),
      timeout_(kDefaultTimeout) {
  if (!session_ || !event_) throw std::bad_alloc();
  SetOptions();
  if (!options.known_hosts.empty()) static_cast<void>(ReadKnownHosts(options.known_hosts));
  try {
    Connect();
  } catch (const pnl_err::Error& error) {
    if (!relay_) throw;
    throw relay_->Explained(error);
  }
}

Session::Session(const SshOptions& options) : Session(options, OnlyKeys()) {
  CheckHostKey();
  LogIn();
  ssh_event_add_session(event_.get(), Get());
  if (options_.stop) {
    const auto nothing = [](socket_t, int, void*) { return 0; };  // Step looks itself
    ssh_event_add_fd(event_.get(), options_.stop->Fd(), POLLIN, nothing, nullptr);
  }
  PNL_TRACE(log_module, "[%s] logged in, cipher %s", Host().c_str(), ssh_get_cipher_out(Get()));
}

HostKey Session::KeyOf(const SshOptions& options) {
  return Session(options, OnlyKeys()).FetchKey();
}

Session::~Session() {
  ForgetStop();
  ssh_event_remove_session(event_.get(), Get());
  if (!lost_) ssh_disconnect(Get());
}

pnl_err::Error Session::Failure(std::string_view type, std::string_view command,
                                std::string_view reason) const {
  return pnl_err::Error(type, Host(), str::WithoutCredentials(command)).add_param("reason", reason);
}

std::string Session::Reason() const {
  return ssh_get_error(Get());
}

void Session::SetTimeout(int length) {
  timeout_ = seconds(std::max(length, 1));
}

void Session::ForgetStop() {
  if (options_.stop) ssh_event_remove_fd(event_.get(), options_.stop->Fd());
  options_.stop.reset();
}

void Session::Outlive(Clock::time_point deadline) {
  ForgetStop();
  options_.deadline = deadline;
}

// --- Login

void Session::SetOption(int option, const void* value) {
  if (ssh_options_set(Get(), static_cast<ssh_options_e>(option), value) == SSH_OK) return;
  throw Failure(kSshConnect, "", Reason());
}

void Session::SetOptions() {
  // Ignores the ssh configuration of the user and the host: a Host section there must not send the
  // panel to another host.
  const bool no = false;
  SetOption(SSH_OPTIONS_PROCESS_CONFIG, &no);
  SetOption(SSH_OPTIONS_GLOBAL_KNOWNHOSTS, "/dev/null");
  if (!options_.known_hosts.empty()) {
    SetOption(SSH_OPTIONS_KNOWNHOSTS, options_.known_hosts.c_str());
  }
  const int fd = socket_.Get();
  SetOption(SSH_OPTIONS_FD, &fd);
  SetOption(SSH_OPTIONS_HOST, options_.host.c_str());
  SetOption(SSH_OPTIONS_PORT, &options_.port);
  SetOption(SSH_OPTIONS_USER, options_.user.c_str());
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
int Session::Repeat(Call call) {
  for (;;) {
    const int result = call();
    if (result != SSH_AGAIN) return result;
    const bool write = (ssh_get_poll_flags(Get()) & SSH_WRITE_PENDING) != 0;
    const auto events = static_cast<short>(write ? POLLIN | POLLOUT : POLLIN);
    if (!Ready(socket_.Get(), events, login_, options_.stop.get()))
      throw NotInTime(options_, "no login within the time-out");
  }
}

void Session::Connect() {
  if (Repeat([this] { return ssh_connect(Get()); }) != SSH_OK) {
    pnl_err::Error error = Failure(kSshConnect, "", Reason());
    if (ssh_get_serverbanner(Get()) == nullptr) error.add_param(kHungUp, "1");
    throw error;
  }
  socket_.Unblock();
}

/// libssh is not asked for the state: it supports neither revoked keys nor negated patterns.
HostKey Session::FetchKey() const {
  ssh_key key = nullptr;
  if (ssh_get_server_publickey(Get(), &key) != SSH_OK) throw Failure(kSshHostKey, "", Reason());
  const Key owned_key(key);
  char* line = nullptr;
  if (ssh_session_export_known_hosts_entry(Get(), &line) != SSH_OK)
    throw Failure(kSshHostKey, "", Reason());
  const Text owned_line(line);
  HostKey told{.type = ssh_key_type_to_char(ssh_key_type(key)), .line = line};
  unsigned char* hash = nullptr;
  std::size_t size = 0;
  if (ssh_get_publickey_hash(key, SSH_PUBLICKEY_HASH_SHA256, &hash, &size) == SSH_OK) {
    const Text text(ssh_get_fingerprint_hash(SSH_PUBLICKEY_HASH_SHA256, hash, size));
    ssh_clean_pubkey_hash(&hash);
    if (text) told.fingerprint = text.get();
  }
  const std::string host = known_hosts::NameOf(options_.host, options_.port);
  told.known_hosts = KnownHosts();
  told.state = known_hosts::LookUp(ReadKnownHosts(told.known_hosts), host, key);
  return told;
}

/// The path that libssh would take, too.
std::string Session::KnownHosts() const {
  char* path = nullptr;
  if (ssh_options_get(Get(), SSH_OPTIONS_KNOWNHOSTS, &path) != SSH_OK)
    throw Failure(kSshHostKey, "", Reason());
  return Text(path).get();
}

std::string Session::ReadKnownHosts(const std::string& path) const {
  try {
    return known_hosts::Read(path);
  } catch (const pnl_err::Error& error) {
    throw Failure(kSshHostKey, "", FileReason(error));
  }
}

void Session::CheckHostKey() const {
  const HostKey key = FetchKey();
  switch (key.state) {
    case HostKey::State::kKnown:
      return;
    case HostKey::State::kRevoked:
      throw Failure(kSshHostKey, "", "the host key " + key.fingerprint + " is revoked");
    case HostKey::State::kChanged:
      throw Failure(kSshHostKey, "", "the host key has changed, it is now " + key.fingerprint);
    case HostKey::State::kUnknown:
      break;
  }
  if (options_.host_keys == HostKeys::kStrict)
    throw Failure(kSshHostKey, "", "unknown host key " + key.fingerprint);
  try {
    NoteHostKey(key);
  } catch (const pnl_err::Error& error) {
    throw Failure(kSshHostKey, "", FileReason(error));
  }
}

int Session::LogInBy(ssh_key_struct* key, bool by_agent) {
  return Repeat([&] {
    int done = SSH_AUTH_ERROR;
    if (key != nullptr) {
      done = ssh_userauth_publickey(Get(), nullptr, key);
    } else if (by_agent) {
      done = ssh_userauth_agent(Get(), nullptr);
    } else {
      done = ssh_userauth_publickey_auto(Get(), nullptr, nullptr);
    }
    return done == SSH_AUTH_AGAIN ? SSH_AGAIN : done;
  });
}

void Session::LogIn() {
  KeyFile file;
  std::optional<Agent> agent;
  try {
    if (!options_.key_file.empty()) file = ReadKey(options_.key_file);
    if (!file.key) agent.emplace(login_, options_.stop.get());
  } catch (const pnl_err::Error& error) {
    throw Failure(kSshAuth, "", FileReason(error));
  } catch (const std::runtime_error& error) {
    throw Failure(kSshAuth, "", error.what());
  }
  if (agent && agent->IsThere()) agent->GiveTo(Get());
  // libssh itself would wait for a connection without a limit.
  if (agent && agent->IsBroken()) SetOption(SSH_OPTIONS_IDENTITY_AGENT, "/dev/null");
  const std::string needs = options_.key_file + " can only be used by an SSH agent, ";
  if (file.for_agent && !agent->IsThere())
    throw Failure(kSshAuth, "", needs + "and none runs: start ssh-agent(1), then ssh-add the key");
  const int result = LogInBy(file.key.get(), file.for_agent);
  if (result == SSH_AUTH_SUCCESS) return;
  if (Stopped(options_) || login_.Passed())
    throw NotInTime(options_, agent ? "no login within the time-out; look whether the SSH agent "
                                      "answers (ssh-add -l)"
                                    : "no login within the time-out");
  const std::string reason = Reason();
  // A node answers a refusal before it closes the connection.
  if (Lost() && ssh_get_disconnect_message(Get()) == nullptr) {
    throw Failure(kSshConnect, "", reason);
  }
  if (file.for_agent)
    throw Failure(kSshAuth, "", needs + "and no key of the agent was accepted: ssh-add the key");
  if (agent && agent->IsBroken())
    throw Failure(kSshAuth, "", "no key was accepted, and the SSH agent takes no connection");
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

std::string Session::ReasonOfLoss() {
  return relay_ ? relay_->Reason(Reason()) : Reason();
}

void Session::ThrowIfLost(const std::string& command) {
  if (!lost_ && Lost()) Lose(ReasonOfLoss());
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
  if (Stopped(options_)) {
    Lose("stopped by the caller");
    throw Failure(kSshStopped, command, *lost_);
  }
  if (now - life_ >= timeout_) {
    Lose("no sign of life for " + std::to_string(timeout_ / seconds(1)) + " s");
    throw Failure(kSshTimeout, command, *lost_);
  }
  const milliseconds pause = timeout_ / 4;
  if (now - std::max(life_, asked_) >= pause) AskForLife();
  const auto next =
      std::min({life_ + timeout_, std::max(life_, asked_) + pause, options_.deadline});
  const auto wait = std::chrono::ceil<milliseconds>(next - now).count();

  const int poll_time = static_cast<int>(std::clamp<long long>(wait, 0, limit));
  if (ssh_event_dopoll(event_.get(), poll_time) == SSH_ERROR) Lose(ReasonOfLoss());
}

// --- Host keys

HostKey FetchHostKey(const SshOptions& options) {
  return Session::KeyOf(options);
}

void NoteHostKey(const HostKey& key) {
  const std::string folder = pnl_file::Folder(key.known_hosts);
  if (!folder.empty()) pnl_file::MkDir(folder);
  known_hosts::Append(key.known_hosts, key.line);
}

}  // namespace pnl_rpc
