#include "support/faults.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <future>
#include <iterator>
#include <string>
#include <thread>

namespace support {
namespace {

/// From now on the calling thread, and the processes that it starts, stop at `calls` until the
/// owner of the returned descriptor decides. -1 when that is not possible.
int Listen(const std::vector<int>& calls) {
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

/// Closes the descriptor, as the kernel does when close(2) fails. In another process it is replaced
/// by a harmless file instead.
void CloseAnyway(int listener, __u64 id, const Call& call) {
  const int fd = static_cast<int>(call.args[0]);
  if (call.own) {
    syscall(SYS_close, fd);
    return;
  }
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  seccomp_notif_addfd put{id, SECCOMP_ADDFD_FLAG_SETFD, static_cast<__u32>(null),
                          static_cast<__u32>(fd), O_CLOEXEC};
  ioctl(listener, SECCOMP_IOCTL_NOTIF_ADDFD, &put);
  close(null);
}

bool IsOwn(pid_t thread) {
  return access(("/proc/self/task/" + std::to_string(thread)).c_str(), F_OK) == 0;
}

/// Until the last intercepted thread has ended.
void Serve(int listener, const std::function<int(const Call&)>& decide) {
  for (pollfd news{listener, POLLIN, 0}; poll(&news, 1, -1) > 0 && (news.revents & POLLIN) != 0;) {
    seccomp_notif asked{};
    if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &asked) != 0) continue;
    const auto thread = static_cast<pid_t>(asked.pid);
    Call call{asked.data.nr, thread, IsOwn(thread), {}, asked.data.instruction_pointer};
    std::copy(std::begin(asked.data.args), std::end(asked.data.args), call.args);
    seccomp_notif_resp answer{asked.id, 0, -decide(call), 0};
    if (answer.error == 0) answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    if (answer.error != 0 && call.number == SYS_close) CloseAnyway(listener, asked.id, call);
    ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
  }
}

}  // namespace

bool FaultsWork() {
  return FailNth(1, ESRCH, {SYS_getppid}, [] {
           if (getppid() < 0) throw 0;
         }) == End::kThrew;
}

std::string TextAt(const Call& call, std::uint64_t address) {
  std::ifstream memory("/proc/" + std::to_string(call.thread) + "/mem", std::ios::binary);
  memory.seekg(static_cast<std::streamoff>(address));
  std::string text;
  std::getline(memory, text, '\0');
  return text;
}

bool Intercept(const std::vector<int>& calls, const std::function<int(const Call&)>& decide,
               const std::function<void()>& work) {
  bool threw = false;
  std::promise<int> listening;
  std::thread worker([&] {
    listening.set_value(Listen(calls));
    try {
      work();
    } catch (...) {
      threw = true;
    }
  });
  const int listener = listening.get_future().get();
  if (listener >= 0) Serve(listener, decide);
  worker.join();
  close(listener);
  return !threw;
}

End AtNth(int nth, const std::vector<int>& calls, const std::function<int()>& event,
          const std::function<void()>& work) {
  int count = 0;
  const bool returned = Intercept(
      calls, [&](const Call&) { return ++count == nth ? event() : 0; }, work);
  if (count < nth) return End::kClean;
  return returned ? End::kSurvived : End::kThrew;
}

End FailNth(int nth, int error, const std::vector<int>& calls, const std::function<void()>& work) {
  return AtNth(
      nth, calls, [=] { return error; }, work);
}

}  // namespace support
