#include "faults/operation.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>

#include "faults/sync_order.h"
#include "faults/table.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "support/faults.h"
#include "support/temp_dir.h"

namespace fs = std::filesystem;

namespace faults {
namespace {

using Names = std::set<std::string>;

// --- Faults

struct Fault {
  const char* name;
  int error;               ///< 0 is a kill
  std::vector<int> calls;  ///< that may fail so, as their man pages say
};

const std::vector<Fault>& Faults() {
  using Calls = std::vector<int>;
  const Calls writes = {SYS_openat, SYS_write, SYS_pwrite64, SYS_fsync, SYS_close, SYS_ftruncate};
  const Calls makes = {SYS_rename,  SYS_renameat2, SYS_mkdir,  SYS_link,
                       SYS_symlink, SYS_fdatasync, SYS_syncfs, SYS_fsetxattr};
  const Calls alters = {SYS_newfstatat, SYS_unlink, SYS_unlinkat, SYS_rmdir,       SYS_fchmod,
                        SYS_chmod,      SYS_fchown, SYS_fchownat, SYS_fremovexattr};
  const Calls reads = {SYS_read,     SYS_pread64,   SYS_readlink, SYS_getdents64,
                       SYS_getxattr, SYS_fgetxattr, SYS_listxattr};
  static const std::vector<Fault> faults = {
      {"EIO", EIO, Joined({writes, makes, alters, reads})},
      {"ENOSPC", ENOSPC, Joined({writes, makes, {SYS_copy_file_range}})},
      {"EINTR", EINTR, Joined({writes, {SYS_read, SYS_flock, SYS_wait4, SYS_waitid, SYS_poll}})},
      {"EMFILE", EMFILE, {SYS_openat, SYS_pipe2, SYS_dup, SYS_fcntl, SYS_socket, SYS_pidfd_open}},
      {"kill", 0,
       Joined({writes, makes, alters, {SYS_read, SYS_pipe2, SYS_clone3, SYS_exit_group}})},
  };
  return faults;
}

/// Whether the call, with these arguments, may fail so.
bool Applies(const Fault& fault, const support::Call& call) {
  if (call.number == SYS_openat && fault.error == ENOSPC) return (call.args[2] & O_CREAT) != 0;
  switch (call.number) {
    case SYS_fcntl:
      return call.args[1] == F_DUPFD || call.args[1] == F_DUPFD_CLOEXEC;
    case SYS_waitid:
      return (call.args[3] & WNOHANG) == 0;
    case SYS_wait4:
      return (call.args[2] & WNOHANG) == 0;
    default:
      return true;
  }
}

/// What a program does before it has begun is the same for all of them, and much.
bool ByLoader(const support::Call& call) {
  std::ifstream maps("/proc/" + std::to_string(call.thread) + "/maps");
  for (std::string line; std::getline(maps, line);) {
    unsigned long begin = 0;
    unsigned long end = 0;
    if (std::sscanf(line.c_str(), "%lx-%lx", &begin, &end) != 2) continue;
    if (begin <= call.from && call.from < end) return line.find("/ld-") != std::string::npos;
  }
  return false;
}

bool Counts(const Operation& operation, const Fault& fault, const support::Call& call) {
  // Programs that are not ours may give up when a signal comes.
  const bool whole_tree =
      operation.callers == Callers::kAll && fault.error != 0 && fault.error != EINTR;
  if (!whole_tree && call.own != (operation.callers != Callers::kOthers)) return false;
  return Applies(fault, call) && (call.own || !ByLoader(call));
}

/// What came of one try.
struct Outcome {
  bool reached = false;
  int call = 0;  ///< that failed
  bool killed = false;
  bool threw = false;
  std::string error;
};

void Work(const Operation& operation, Outcome& outcome) {
  try {
    operation.work();
  } catch (const std::exception& error) {
    outcome.threw = true;
    outcome.error = error.what();
  }
}

/// The `nth` call that counts fails, or its process is killed before it.
Outcome TryHere(const Operation& operation, const Fault& fault, int nth) {
  Outcome outcome;
  int count = 0;
  const auto decide = [&](const support::Call& call) {
    if (!Counts(operation, fault, call) || ++count != nth) return 0;
    outcome.call = call.number;
    if (fault.error == 0) kill(call.thread, SIGKILL);
    return fault.error;
  };
  support::Intercept(fault.calls, decide, [&] { Work(operation, outcome); });
  outcome.reached = count >= nth;
  outcome.killed = outcome.reached && fault.error == 0;
  return outcome;
}

/// Tries a fault that kills on a copy of this process. The copy has a parent of its own, which waits
/// for the programs that the copy leaves: they end soon, since most of their calls fail now.
Outcome TryInCopy(const Operation& operation, const Fault& fault, int nth) {
  constexpr int kKilled = 2;
  const pid_t parent = fork();
  if (parent == 0) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t copy = fork();
    if (copy == 0) {
      TryHere(operation, fault, nth);
      _exit(0);
    }
    int status = 0;
    waitpid(copy, &status, 0);
    while (waitpid(-1, nullptr, 0) > 0) continue;
    _exit(WIFSIGNALED(status) ? kKilled : 0);
  }
  int status = 0;
  waitpid(parent, &status, 0);
  Outcome outcome;
  outcome.reached = outcome.killed = WEXITSTATUS(status) == kKilled;
  return outcome;
}

// --- What is found afterwards

Names Files() {
  Names names;
  for (std::string& name : support::Tree()) {
    if (!name.ends_with(".log")) names.insert(std::move(name));
  }
  return names;
}

Names Without(const Names& names, const Names& known) {
  Names rest;
  std::set_difference(names.begin(), names.end(), known.begin(), known.end(),
                      std::inserter(rest, rest.end()));
  return rest;
}

void Prepare(const Operation& operation) {
  for (const auto& entry : fs::directory_iterator(".")) fs::remove_all(entry);
  operation.prepare();
}

/// The points of one operation.
class Trial {
 public:
  Trial(const Operation& operation, int step)
      : operation_(operation), step_(step), row_(operation.name) {}

  void Run() {
    Prepare(operation_);
    before_ = Files();
    RunWhole();
    known_ = Files();
    known_.insert(before_.begin(), before_.end());
    int first = 0;
    for (const Fault& fault : Faults()) {
      for (int nth = 1 + first % step_; Try(fault, nth);) nth += step_;
      ++first;
    }
  }

 private:
  /// Without a fault: what it moves is in order, should the power fail.
  void RunWhole() {
    Outcome whole;
    SyncOrder order;
    const auto see = [&](const support::Call& call) {
      order.See(call);
      return 0;
    };
    support::Intercept(SyncOrder::Calls(), see, [&] { Work(operation_, whole); });
    if (operation_.state() != "new") row_.Violation("without a fault: " + whole.error);
    for (const std::string& fault : order.Faults()) row_.Violation(fault);
    for (int move = 0; move < order.Moves(); ++move) row_.Point("moved");
  }

  /// False when there is no such call any more.
  bool Try(const Fault& fault, int nth) {
    Prepare(operation_);
    const std::size_t descriptors = support::OpenDescriptors();
    const bool copy = fault.error == 0 && operation_.callers != Callers::kOthers;
    const Outcome outcome = (copy ? TryInCopy : TryHere)(operation_, fault, nth);
    if (!outcome.reached) return false;
    point_ = std::string(fault.name) + " " + std::to_string(nth) +
             (outcome.call == 0 ? "" : ", call " + std::to_string(outcome.call)) +
             (outcome.error.empty() ? "" : " (" + outcome.error + ")") + ": ";
    const std::string state = operation_.state();
    row_.Point(std::string(fault.name) + " " + state);
    CheckState(fault, outcome, state);
    const Names left = CheckFiles(outcome);
    Expect(support::OpenDescriptors() == descriptors, "descriptors are left open");
    CheckAgain(left, outcome);
    return true;
  }

  void CheckState(const Fault& fault, const Outcome& outcome, const std::string& state) {
    const bool torn = !operation_.torn.empty() && state == operation_.torn;
    Expect(state == "old" || state == "new" || torn, "found: " + state);
    if (outcome.killed) return;
    const bool late = operation_.late && state == "new";
    if (outcome.threw) Expect(state == "old" || torn || late, "failed, but the state is " + state);
    if (!outcome.threw && !operation_.silent) Expect(state == "new", "returned, but left " + state);
    const bool ours = operation_.callers != Callers::kOthers;
    if (fault.error == EINTR && ours) Expect(!outcome.threw, "an interrupted call is no failure");
  }

  Names CheckFiles(const Outcome& outcome) {
    Names left = Without(Files(), known_);
    for (const std::string& name : left) {
      Expect(MayStay(name, outcome), name + " is left");
    }
    for (const std::string& name : Without(Files(), before_)) {
      struct stat info {};
      if (lstat(name.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) continue;
      Expect((info.st_mode & 07777 & ~operation_.widest) == 0, name + " has too wide a mode");
    }
    return left;
  }

  bool MayStay(const std::string& name, const Outcome& outcome) const {
    if (outcome.killed || operation_.leaves) return true;
    if (outcome.call == SYS_unlink || outcome.call == SYS_unlinkat) return true;
    if (operation_.logs && (!outcome.threw || outcome.call == SYS_rename)) return true;
    return outcome.error.find(name) != std::string::npos;
  }

  /// What is left over does not disturb, nor is there a lock that nobody gives back.
  void CheckAgain(const Names& left, const Outcome& before) {
    Outcome again;
    Work(operation_, again);
    Expect(operation_.state() == "new", "done again: " + again.error);
    const Names more = Without(Without(Files(), known_), operation_.cleans ? Names() : left);
    // A shell cannot tell a file that it cannot read from one that is not there.
    const bool may_stay = operation_.leaves && (!operation_.cleans || !before.killed);
    Expect(more.empty() || may_stay,
           "done again: " + (more.empty() ? "" : *more.begin()) + " is left");
  }

  void Expect(bool good, const std::string& what) {
    if (!good) row_.Violation(point_ + what);
  }

  const Operation& operation_;
  const int step_;
  Row row_;
  Names before_;
  Names known_;  ///< and what the operation makes
  std::string point_;
};

}  // namespace

Operation Edit(const std::string& name, const std::string& path, const std::string& before,
               const std::string& after, const std::function<void()>& work) {
  return {.name = name,
          .prepare =
              [=] {
                if (!before.empty()) Put(path, before);
              },
          .work = work,
          .state = [=] { return OldOrNew(Get(path), before, after); }};
}

int Run(int argc, char** argv, const std::vector<Operation>& operations) {
  if (!support::FaultsWork()) return 77;
  const char* const step = std::getenv("BREFIR_FAULT_STEP");
  const char* const wanted = argc > 1 ? argv[1] : "";
  umask(0);
  const pnl_file::TmpDir scratch(fs::temp_directory_path() / "faults");
  const pnl_file::safe::Folder home;
  fs::current_path(scratch.Str());
  Put("etc/log.conf", "* 0\n");  // no log file that comes and goes
  pnl_log::Reload();
  PrintHead();
  for (const Operation& operation : operations) {
    if (operation.name.find(wanted) == std::string::npos) continue;
    const int thinned = step == nullptr ? 1 : std::max(1, std::atoi(step));
    Trial(operation, operation.every * thinned).Run();
  }
  return Finish();
}

std::string Get(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void Put(const std::string& path, const std::string& text, mode_t mode) {
  const fs::path dir = fs::path(path).parent_path();
  if (!dir.empty()) fs::create_directories(dir);
  fs::remove(path);
  std::ofstream(path, std::ios::binary) << text;
  if (chmod(path.c_str(), mode) != 0) throw std::runtime_error("cannot make " + path);
}

std::string OldOrNew(const std::string& text, const std::string& old, const std::string& changed) {
  if (text == changed) return "new";
  return text == old ? "old" : "'" + text.substr(0, 200) + "'";
}

std::string Shell(const std::string& command) {
  pnl_proc::Execute run(command, pnl_proc::kNoInput);
  std::string output = run.Str();
  if (run.Result() != 0) throw std::runtime_error("failed: " + command);
  return output;
}

}  // namespace faults
