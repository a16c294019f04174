#include "support/faults.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <future>
#include <thread>

namespace support {
namespace {

/// From now on the calling thread, and what it starts, stops at `calls` until the owner of the
/// returned descriptor decides. -1 where that is not possible.
int Intercept(const std::vector<int>& calls) {
  std::vector<sock_filter> program{
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
  };
  for (const int call : calls) {
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(call), 0, 1));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  return static_cast<int>(
      syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter));
}

/// Lets every call pass but the `nth`, until the last intercepted thread is gone.
bool Decide(int listener, int nth, const std::function<int()>& event) {
  int count = 0;
  for (pollfd news{listener, POLLIN, 0}; poll(&news, 1, -1) > 0 && (news.revents & POLLIN) != 0;) {
    seccomp_notif call{};
    if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) continue;
    seccomp_notif_resp answer{call.id, 0, 0, 0};
    if (++count == nth) answer.error = -event();
    if (answer.error == 0) answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
  }
  return count >= nth;
}

}  // namespace

bool FaultsWork() {
  return FailNth(1, ESRCH, {SYS_getppid}, [] {
           if (getppid() < 0) throw 0;
         }) == End::kThrew;
}

End AtNth(int nth, const std::vector<int>& calls, const std::function<int()>& event,
          const std::function<void()>& work) {
  bool threw = false;
  std::promise<int> listening;
  std::thread worker([&] {
    listening.set_value(Intercept(calls));
    try {
      work();
    } catch (...) {
      threw = true;
    }
  });
  const int listener = listening.get_future().get();
  const bool reached = listener >= 0 && Decide(listener, nth, event);
  worker.join();
  close(listener);
  if (!reached) return End::kClean;
  return threw ? End::kThrew : End::kSurvived;
}

End FailNth(int nth, int error, const std::vector<int>& calls, const std::function<void()>& work) {
  return AtNth(
      nth, calls, [=] { return error; }, work);
}

bool KillAtNth(int nth, const std::vector<int>& calls, const std::function<void()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    AtNth(
        nth, calls, [] { return kill(getpid(), SIGKILL); }, work);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFSIGNALED(status);
}

}  // namespace support
