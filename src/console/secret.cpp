#include "console/secret.h"

#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <mutex>

#include "console/interrupt.h"
#include "console/terminal.h"
#include "fleet/fan.h"
#include "pnl/err.h"
#include "pnl/file.h"

namespace console {
namespace {

constexpr int kLookInterval = 200;  // milliseconds; for interruptions from elsewhere
constexpr std::size_t kLongest = 1024;

/// While it lives, keys arrive one by one, are not shown, and raise no signal: a signal could end the
/// process before the terminal is as it was.
class SilentTerminal {
 public:
  explicit SilentTerminal(int fd) : fd_(fd) {
    tcgetattr(fd_, &before_);
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON | ISIG);
    tcsetattr(fd_, TCSAFLUSH, &silent);
  }
  SilentTerminal(const SilentTerminal&) = delete;
  SilentTerminal& operator=(const SilentTerminal&) = delete;
  ~SilentTerminal() { tcsetattr(fd_, TCSAFLUSH, &before_); }

  bool Is(char c, int which) const { return static_cast<cc_t>(c) == before_.c_cc[which]; }

 private:
  const int fd_;
  termios before_{};
};

enum class Typed { kLine, kInterrupt };

/// Waits for a key; none if there was an interruption, or the terminal is gone.
bool ReadKey(int fd, char& key) {
  for (;;) {
    pollfd ready{fd, POLLIN, 0};
    if (WasInterrupted()) return false;
    if (poll(&ready, 1, kLookInterval) > 0) return read(fd, &key, 1) == 1;
  }
}

Typed ReadSecret(int fd, std::string& line) {
  const SilentTerminal terminal(fd);
  for (char key = 0; ReadKey(fd, key);) {
    if (terminal.Is(key, VINTR)) return Typed::kInterrupt;
    if (key == '\n' || key == '\r' || terminal.Is(key, VEOF)) return Typed::kLine;
    if (terminal.Is(key, VERASE) || key == '\b' || key == 0x7f) {
      if (!line.empty()) line.pop_back();
    } else if (terminal.Is(key, VKILL)) {
      line.clear();
    } else if (line.size() < kLongest) {
      line += key;
    }
  }
  return Typed::kInterrupt;
}

}  // namespace

std::string AskSecret(const std::string& prompt) {
  const pnl_file::Fd terminal = pnl_file::Fd(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!terminal) throw pnl_err::System("open", "/dev/tty", errno);
  const std::lock_guard drawing(DrawingLock());
  pnl_file::WriteAll(terminal.Get(), prompt, "/dev/tty");
  std::string line;
  line.reserve(kLongest);  // never moved: no copy stays in memory
  const Typed typed = ReadSecret(terminal.Get(), line);
  // Back to where the drawings begin.
  pnl_file::WriteAll(terminal.Get(), CanDraw() ? "\r\x1b[K" : "\n", "/dev/tty");
  if (typed == Typed::kLine) return line;
  explicit_bzero(line.data(), line.size());
  if (!WasInterrupted()) std::raise(SIGINT);
  throw pnl_err::Error(fleet::kInterrupted).add_param("message", "interrupted");
}

}  // namespace console
