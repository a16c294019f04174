#include "console/interrupt.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

#include "pnl/err.h"
#include "pnl/proc.h"

namespace console {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

// Data for the signal handlers, which use only functions of signal-safety(7).
char doomed[PATH_MAX] = "";
std::atomic<int> interruptions = 0;  // other threads read it too
std::atomic<pid_t> command_group = 0;
std::atomic<pnl_thread::Event*> stop_event = nullptr;
static_assert(std::atomic<int>::is_always_lock_free, "signal handlers must not wait");

void RemoveAndEnd(int number) {
  unlink(doomed);
  std::signal(number, SIG_DFL);
  raise(number);  // pending until the handler returns
}

void Note(int /*number*/) {
  const bool again = interruptions++ > 0;
  if (const pid_t group = command_group; group > 0) kill(-group, again ? SIGKILL : SIGTERM);
}

void Stop(int number) {
  Note(number);
  if (interruptions == 1) return stop_event.load()->Raise();
  std::signal(number, SIG_DFL);
  raise(number);  // pending until the handler returns
}

/// A signal that the caller ignores (nohup) stays ignored.
void Handle(void (*handler)(int)) {
  for (const int number : kSignals) {
    struct sigaction old {};
    sigaction(number, nullptr, &old);
    if (old.sa_handler == SIG_IGN) continue;
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(number, &action, nullptr);
  }
}

}  // namespace

RemovedWhenInterrupted::RemovedWhenInterrupted(const std::string& path) {
  if (path.size() >= sizeof doomed) throw pnl_err::System("open", path, ENAMETOOLONG);
  std::memcpy(doomed, path.c_str(), path.size() + 1);
  Handle(RemoveAndEnd);
}

RemovedWhenInterrupted::~RemovedWhenInterrupted() {
  Handle(SIG_DFL);
}

StoppedByInterruption::StoppedByInterruption(pnl_thread::Event& stop) {
  interruptions = 0;
  stop_event = &stop;
  Handle(Stop);
}

StoppedByInterruption::~StoppedByInterruption() {
  Handle(SIG_DFL);
}

NotedInterruption::NotedInterruption() {
  interruptions = 0;
  Handle(Note);
}

NotedInterruption::~NotedInterruption() {
  Handle(SIG_DFL);
}

bool WasInterrupted() {
  return interruptions > 0;
}

int RunCommand(const std::string& command) {
  pnl_proc::Execute run(command, pnl_proc::kNoInput);
  command_group = run.Pid();
  if (WasInterrupted()) kill(-run.Pid(), SIGTERM);  // interrupted before the group was known
  const int code = run.Result();
  command_group = 0;
  return code;
}

}  // namespace console
