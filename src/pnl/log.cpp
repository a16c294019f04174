#include "pnl/log.h"
#include "pnl/layout.h"

#include <errno.h>  // NOLINT: program_invocation_short_name is GNU's
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "pnl/str.h"

namespace pnl_log {
namespace {

constexpr std::time_t kLookAgainSeconds = 1;

std::time_t MonotonicSeconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec;
}

/// The content of a small file; an unreadable file counts as empty. pnl_file cannot be used here,
/// because it writes to the log.
std::string Slurp(const char* path) {
  std::string text;
  const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return text;
  char buffer[4096];
  for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<std::size_t>(got));
  }
  close(fd);
  return text;
}

std::map<std::string, int, std::less<>> ParseLevels(std::string_view text) {
  std::map<std::string, int, std::less<>> levels;
  while (!text.empty()) {
    std::string_view line = str::NextWord(text, '\n');
    std::string words(str::NextWord(line, '#'));
    const std::string module = str::GetWord(words);
    if (!module.empty() && !words.empty()) levels[module] = str::Int(words);
  }
  return levels;
}

std::string VFormat(const char* format, va_list args) {
  char* buffer = nullptr;
  const int size = vasprintf(&buffer, format, args);
  const std::unique_ptr<char, decltype(&std::free)> owner(buffer, &std::free);
  return size < 0 ? std::string() : std::string(buffer, static_cast<std::size_t>(size));
}

std::string Prefix(int level, const char* module) {
  const std::time_t now = std::time(nullptr);
  tm utc{};
  gmtime_r(&now, &utc);
  char time_text[32];
  strftime(time_text, sizeof time_text, "%Y-%m-%d %H:%M:%S", &utc);
  return str::Format("%s [%d %d] %d %s: ", time_text, getpid(), gettid(), level, module);
}

}  // namespace

/// All modules, the levels and the open file of the process.
class Registry {
 public:
  /// Never destroyed: static objects log from their destructors.
  static Registry& Get() {
    static auto* const registry = new Registry();
    return *registry;
  }

  void Add(Module* module) {
    const std::lock_guard guard(mutex_);
    modules_.push_back(module);
    if (configured_) SetLevel(*module);
  }

  void Remove(Module* module) {
    const std::lock_guard guard(mutex_);
    std::erase(modules_, module);
  }

  void Echo(int level) {
    const std::lock_guard guard(mutex_);
    echo_ = level;
    if (configured_) SetLevels();
  }

  void Reload() {
    const std::lock_guard guard(mutex_);
    LookAgain();
  }

  void NoFile() {
    const std::lock_guard guard(mutex_);
    no_file_ = true;
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
    LookAgain();
  }

  void Write(const Module& module, int level, const std::string& text) {
    const std::lock_guard guard(mutex_);
    if (!configured_ || MonotonicSeconds() - looked_at_ >= kLookAgainSeconds) LookAgain();
    if (level <= module.configured_.load(std::memory_order_relaxed) && fd_ >= 0) {
      Put(fd_, Prefix(level, module.name()) + text + "\n");
    }
    if (level <= echo_) Put(STDERR_FILENO, str::Format("%s[%d] %s\n", module.name(), level, text));
  }

 private:
  Registry() : path_(std::string(pnl_layout::kLogDir) + program_invocation_short_name + ".log") {}

  /// One write(2) per line, so that lines of several processes do not mix. A line that cannot be
  /// written is lost: the log must not stop its caller.
  static void Put(int fd, const std::string& line) {
    while (write(fd, line.data(), line.size()) < 0 && errno == EINTR) {
    }
  }

  void LookAgain() {
    looked_at_ = MonotonicSeconds();
    configured_ = true;
    levels_ = ParseLevels(no_file_ ? "" : Slurp(pnl_layout::kLogConf));
    SetLevels();
    if (!no_file_) OpenFile();
  }

  /// Opens the file again when the path leads to another file, after a rotation or a change of
  /// directory.
  void OpenFile() {
    struct stat now {};
    struct stat open_file {};
    if (fd_ >= 0 && stat(path_.c_str(), &now) == 0 && fstat(fd_, &open_file) == 0 &&
        now.st_ino == open_file.st_ino && now.st_dev == open_file.st_dev) {
      return;
    }
    if (fd_ >= 0) close(fd_);
    // O_NONBLOCK: a FIFO of that name must not block the panel.
    fd_ = open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0640);
  }

  void SetLevels() {
    for (Module* module : modules_) SetLevel(*module);
  }

  void SetLevel(Module& module) const {
    auto found = levels_.find(std::string_view(module.name()));
    if (found == levels_.end()) found = levels_.find(std::string_view("*"));
    const int level = found == levels_.end() ? kDefaultLevel : found->second;
    module.configured_.store(level, std::memory_order_relaxed);
    module.level_.store(std::max(level, echo_), std::memory_order_relaxed);
  }

  std::mutex mutex_;  // guards all below
  std::vector<Module*> modules_;
  std::map<std::string, int, std::less<>> levels_;
  std::string path_;
  int fd_ = -1;
  int echo_ = -1;
  bool no_file_ = false;
  bool configured_ = false;
  std::time_t looked_at_ = 0;
};

Module::Module(const char* name) : name_(name), level_(kMaxLevel), configured_(kMaxLevel) {
  Registry::Get().Add(this);
}

Module::~Module() {
  Registry::Get().Remove(this);
}

void Module::Write(int level, const char* format, ...) noexcept {
  const int saved_errno = errno;  // callers log between a failed call and their use of errno
  va_list args;
  va_start(args, format);
  try {
    Registry::Get().Write(*this, level, VFormat(format, args));
  } catch (const std::exception&) {  // out of memory: the line is lost
  }
  va_end(args);
  errno = saved_errno;
}

void Echo(int level) {
  Registry::Get().Echo(level);
}

void NoFile() {
  Registry::Get().NoFile();
}

void Reload() {
  Registry::Get().Reload();
}

}  // namespace pnl_log
