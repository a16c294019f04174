// Tests runs over three nodes while this panel host fails: its n-th system call fails or kills it,
// the n-th statement of the journal's database fails, or its connection is lost, during a run, a run
// that fails on a node, its undoing, and resuming. Then another process resumes or undoes the run.
// Checks that all nodes then have the change or none has it, as the journal says; that commands ran
// once; and that no secret is in the journal, in a file of the panel, or on a command line.
//
// Usage: lab/run --bind BUILD run_faults [PART-OF-A-NAME]
//
// With BREFIR_FAULT_STEP in the environment, it tests only every so many-th point.

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <variant>

#include "faults/operation.h"
#include "faults/run_trial.h"
#include "faults/statements.h"
#include "faults/table.h"
#include "faults/workers.h"
#include "pnl/err.h"
#include "pnl/log.h"
#include "support/faults.h"
#include "support/lab.h"
#include "support/postgres.h"

namespace {

using faults::RunSite;
using faults::StatementFault;

constexpr int kWorkers = 4;
constexpr faults::RunTimes kTimes = {20, 60};  // no node is silent here, but the machine is busy
constexpr unsigned kHung = 90;                 // seconds, then a round is taken to hang

// --- Faults

struct CallFault {
  const char* name;
  int error;  ///< 0 is a kill
  std::vector<int> calls;
};

/// A point of a job: how often such a thing happens until the fault comes.
using Fault = std::variant<CallFault, StatementFault>;

std::vector<Fault> Faults(bool on_postgres) {
  using Calls = std::vector<int>;
  const Calls net = {SYS_sendto, SYS_recvfrom};
  const Calls disk = {SYS_pwrite64, SYS_fdatasync, SYS_fsync, SYS_ftruncate};
  const Calls files = {SYS_openat, SYS_unlink, SYS_write, SYS_close};
  std::vector<Fault> faults = {StatementFault::kFails, StatementFault::kCut,
                               StatementFault::kNoAnswer, StatementFault::kKill};
  if (on_postgres) {
    faults.push_back(StatementFault::kAway);
    return faults;
  }
  faults.push_back(
      CallFault{"kill", 0, faults::Joined({Calls{SYS_sendto, SYS_clone3}, disk, files})});
  faults.push_back(CallFault{"reset", ECONNRESET, net});
  faults.push_back(CallFault{"EIO", EIO, faults::Joined({disk, files, Calls{SYS_pread64}})});
  faults.push_back(CallFault{"ENOSPC", ENOSPC, faults::Joined({disk, Calls{SYS_write}})});
  faults.push_back(CallFault{"EMFILE", EMFILE, {SYS_openat, SYS_socket, SYS_pipe2, SYS_dup}});
  faults.push_back(CallFault{"EAGAIN", EAGAIN, {SYS_clone3, SYS_mmap}});
  return faults;
}

std::string NameOf(const Fault& fault) {
  if (const auto* const call = std::get_if<CallFault>(&fault)) return call->name;
  return faults::NameOf(std::get<StatementFault>(fault));
}

/// How a process ended in which something failed.
struct Outcome {
  bool reached = false;  ///< the point came
  bool killed = false;
};

enum ExitCode { kNotReached = 0, kReached = 1 };

/// Calls `work`, whose `nth` call or statement has the fault; returns whether it came.
bool WithFault(const Fault& fault, int nth, const std::function<void()>& work) {
  const auto tried = [&] {
    try {
      work();
    } catch (const std::exception&) {  // what it was is seen in the books and on the nodes
    }
  };
  if (const auto* const statement = std::get_if<StatementFault>(&fault)) {
    faults::FailStatement(nth, *statement);
    tried();
    return faults::StatementFailed();
  }
  const auto& call = std::get<CallFault>(fault);
  int count = 0;
  const auto decide = [&](const support::Call& seen) {
    if (!seen.own || ++count != nth) return 0;
    if (call.error == 0) kill(getpid(), SIGKILL);
    return call.error;
  };
  support::Intercept(call.calls, decide, tried);
  return count >= nth;
}

/// The same in a process of its own.
Outcome InProcess(const Fault& fault, int nth, const std::function<void()>& work) {
  std::fflush(nullptr);
  const pid_t process = fork();
  if (process == 0) {
    alarm(kHung);
    _exit(WithFault(fault, nth, work) ? kReached : kNotReached);
  }
  int status = 0;
  waitpid(process, &status, 0);
  if (!WIFSIGNALED(status)) return {.reached = WEXITSTATUS(status) == kReached};
  if (WTERMSIG(status) != SIGKILL)
    throw std::runtime_error("ended with signal " + std::to_string(WTERMSIG(status)));
  return {.reached = true, .killed = true};
}

// --- A worker

struct Job {
  faults::RunOperation operation;
  Fault fault;
  bool resumes;  ///< afterwards; else it is undone
  bool on_postgres;
  int first;  ///< point, of those that are left out between two
  int every;  ///< so many-th point
};

std::string RowOf(const Job& job) {
  return job.operation.name + (job.on_postgres ? " (PostgreSQL)" : "") + ", then " +
         (job.resumes ? "resume" : "undo");
}

class Worker {
 public:
  Worker(int number, const faults::Report& report) : number_(number), report_(report) {
    faults::EnterPanel(number);
    pnl_log::Reload();
  }

  void Do(const Job& job) {
    job_ = &job;
    try {
      OpenSite();
      for (int nth = 1 + job.first % job.every; Point(nth);) nth += job.every;
    } catch (const std::exception& error) {
      Violation(error.what());
      site_.reset();
    }
  }

 private:
  void OpenSite() {
    if (site_ && on_postgres_ == job_->on_postgres) return;
    site_.reset();
    on_postgres_ = job_->on_postgres;
    const std::string schema = "w" + std::to_string(number_) + "_" + std::to_string(++sites_);
    site_.emplace(on_postgres_ ? support::NewPostgresSchema(schema) : "sqlite:fleet.db");
  }

  void Violation(const std::string& what) const {
    report_.Violation(RowOf(*job_), NameOf(job_->fault) + " " + std::to_string(nth_) + ": " + what);
  }

  /// False when there is no such call or statement any more.
  bool Point(int nth) {
    nth_ = nth;
    alarm(2 * kHung);
    // Nobody knows a secret after the commit, so it could not be undone then.
    faults::RunTrial trial(*site_, job_->operation.work, job_->resumes, kTimes,
                           job_->resumes || nth % 2 == 0);
    trial.Prepare();
    const Outcome outcome = InProcess(job_->fault, nth, [&] { trial.Work(); });
    alarm(kHung);
    const std::string state = trial.Recover();
    const std::string secrets = site_->SecretsHere();
    if (!secrets.empty()) Violation("a secret is in " + secrets);
    if (state != "old" && state != "new") {
      Violation(state);
      site_->Reset();
    } else {
      if (!outcome.reached && job_->resumes && state != trial.WholeState())
        Violation("without a fault: " + state);
      if (outcome.reached) report_.Point(RowOf(*job_), NameOf(job_->fault) + " " + state);
    }
    alarm(0);
    return outcome.reached;
  }

  const int number_;
  const faults::Report report_;
  std::optional<RunSite> site_;
  bool on_postgres_ = false;
  int sites_ = 0;
  const Job* job_ = nullptr;
  int nth_ = 0;
};

/// How many points are left out between two: the calls of a run are many, its statements few.
int EveryOf(const Fault& fault) {
  if (const auto* const statement = std::get_if<StatementFault>(&fault))
    return *statement == StatementFault::kAway ? 20 : 3;
  const std::string name = NameOf(fault);
  return name == "kill" ? 4 : 10;
}

std::vector<Job> MakeJobs(const std::string& part, const faults::Thinning& thinning) {
  constexpr int kStride = 7;
  int first = 0;
  std::vector<Job> jobs;
  for (const bool on_postgres : {false, true}) {
    if (on_postgres && support::PostgresAddress().empty()) continue;
    for (const Fault& fault : Faults(on_postgres))
      for (const faults::RunOperation& operation : faults::RunOperations())
        for (const bool resumes : {true, false}) {
          const Job job{operation,   fault, resumes,
                        on_postgres, first, EveryOf(fault) * thinning.points};
          first += kStride;
          if (RowOf(job).find(part) != std::string::npos) jobs.push_back(job);
        }
  }
  return thinning.Of(jobs);
}

}  // namespace

int main(int argc, char** argv) {
  if (const std::string why = faults::WhyNotHere("run_faults"); !why.empty()) {
    std::fputs(why.c_str(), stderr);
    return faults::kLeftOut;
  }
  unsetenv(
      "BREFIR_POSTGRES");  // a lab does not reach sockets of its host: it gets a server of its own
  const std::vector<Job> jobs = MakeJobs(argc > 1 ? argv[1] : "", faults::Thinning());
  faults::SecretWatch watch;
  std::vector<std::string> rows;
  for (const Job& job : jobs) rows.push_back(RowOf(job));
  faults::PrintHead();
  faults::RunJobs(rows, kWorkers, [&](int number, const faults::Report& report) {
    const auto worker = std::make_shared<Worker>(number, report);
    return [&jobs, worker](std::size_t job) { worker->Do(jobs[job]); };
  });
  if (const std::string seen = watch.Stop(); !seen.empty())
    faults::Row("command lines").Violation("a secret was on one: " + seen);
  return faults::Finish();
}
