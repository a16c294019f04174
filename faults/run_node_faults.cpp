// Tests runs over three nodes while one of them fails: its connection is cut, it is silent, cut off the
// network, its commands are killed or refused, its disk is full or read-only, it crashes. The fault
// comes before the n-th packet that the panel sends, and is over before another process resumes or
// undoes the run. Checks that all nodes then have the change or none has it, as the journal says; that
// no command ran twice; that no phase takes longer than a node may; and that no secret is anywhere.
//
// Usage: lab/run --bind BUILD run_node_faults [PART-OF-A-NAME]
//
// With BREFIR_FAULT_STEP in the environment, it tests only every so many-th point.

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <utility>

#include "faults/run_trial.h"
#include "faults/table.h"
#include "faults/workers.h"
#include "pnl/err.h"
#include "pnl/log.h"
#include "support/faults.h"
#include "support/lab.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr int kWorkers = 8;  // they mostly wait for silent nodes
constexpr faults::RunTimes kTimes = {4, 8};
constexpr faults::RunTimes kSlowTimes = {10, 20};  // slow builds are tested thinned out
constexpr unsigned kHung = 150;                    // seconds, then a round is taken to hang
constexpr int kEvery = 6;                          // packets from one point to the next

struct Fault {
  const char* name;  ///< as lab/fault has it, but for a crash
  const char* end;   ///< what undoes it; "" where nothing has to
  /// Whether it ends commands in the middle, so that nobody may know what they have done.
  bool ends_commands = false;
};
constexpr Fault kFaults[] = {
    {"silence", "resume"}, {"unplug", "plug"},   {"crash", "", true},      {"cut", ""},
    {"kill", "", true},    {"refuse", "accept"}, {"readonly", "writable"}, {"fill", "writable"},
};

struct Job {
  faults::RunOperation operation;
  const Fault* fault;
  bool resumes;  ///< afterwards; else it is undone
  int first;     ///< point, of those that are left out between two
  int every;     ///< so many-th point
};

std::string RowOf(const Job& job) {
  return "node: " + job.operation.name + ", then " + (job.resumes ? "resume" : "undo");
}

/// How long each phase of a run takes.
class Phases {
 public:
  fleet::RunWatch Watch() {
    return {.phase = [this](fleet::RunPhase /*phase*/, std::size_t /*nodes*/) { Next(); }};
  }
  /// Time that the fault itself takes does not count.
  void Forgive(Clock::duration time) { begun_ += time; }
  Seconds Longest() {
    Next();
    return longest_;
  }

 private:
  void Next() {
    longest_ = std::max<Seconds>(longest_, Clock::now() - begun_);
    begun_ = Clock::now();
  }

  Clock::time_point begun_ = Clock::now();
  Seconds longest_{0};
};

class Worker {
 public:
  Worker(int number, const faults::Report& report, const faults::RunTimes& times)
      : report_(report), times_(times) {
    faults::EnterPanel(number);
    pnl_log::Reload();
  }

  void Do(const Job& job) {
    job_ = &job;
    try {
      if (!site_) site_.emplace("sqlite:fleet.db");
      for (int nth = 1 + job.first % job.every; Point(nth);) nth += job.every;
    } catch (const std::exception& error) {
      Violation(error.what());
      site_.reset();
    }
  }

 private:
  void Violation(const std::string& what) const {
    report_.Violation(RowOf(*job_),
                      std::string(job_->fault->name) + " " + std::to_string(nth_) + ": " + what);
  }

  void Begin(const support::LabNode& node) const {
    if (job_->fault->name == std::string("crash")) return node.Kill();
    node.Fault(job_->fault->name);
  }

  void End(const support::LabNode& node) const {
    if (job_->fault->name == std::string("crash")) return node.Reboot();
    if (job_->fault->end[0] != '\0') node.Fault(job_->fault->end);
    if (job_->fault->name == std::string("unplug")) faults::LetsIn(node, support::LabKey());
  }

  void ExpectShort(Phases phases, const char* what) const {
    constexpr int kMore = 5;
    if (const Seconds longest = phases.Longest(); longest > Seconds(times_.node_deadline + kMore))
      Violation(std::string("a phase of ") + what + " took " + std::to_string(longest.count()) +
                " s");
  }

  /// False when so many packets are not sent any more.
  bool Point(int nth) {
    nth_ = nth;
    alarm(kHung);
    const support::LabNode& node = site_->Node(static_cast<std::size_t>(nth) % site_->kNodes);
    faults::RunTrial trial(*site_, job_->operation.work, job_->resumes, times_, nth % 2 == 0);
    trial.Prepare();
    Phases phases;
    bool begun = false;
    const auto event = [&] {
      const auto start = Clock::now();
      try {
        Begin(node);
        begun = true;
      } catch (const std::exception&) {  // a file that is open for writing keeps a disk writable
      }
      phases.Forgive(Clock::now() - start);
      return 0;
    };
    // What a run throws is seen in the books and on the nodes.
    const bool reached = support::AtNth(nth, {SYS_sendto}, event, [&] {
                           trial.Work(phases.Watch());
                         }) != support::End::kClean;
    ExpectShort(phases, "the run");
    if (reached) End(node);
    Judge(trial, begun);
    alarm(0);
    return reached;
  }

  void Judge(faults::RunTrial& trial, bool failed) {
    Phases phases;
    const std::string state = trial.Recover(phases.Watch());
    ExpectShort(phases, "its recovery");
    const std::string secrets = site_->SecretsHere();
    if (!secrets.empty()) Violation("a secret is in " + secrets);
    const bool allowed = state == "old" || state == "new" ||
                         (state == "unknown" && failed && job_->fault->ends_commands);
    if (!allowed) Violation(state);
    if (allowed && failed) report_.Point(RowOf(*job_), job_->fault->name + (" " + state));
    if (!failed && job_->resumes && state != trial.WholeState())
      Violation("without a fault: " + state);
    if (!allowed || state == "unknown") site_->Reset();
  }

  const faults::Report report_;
  const faults::RunTimes times_;
  std::optional<faults::RunSite> site_;
  const Job* job_ = nullptr;
  int nth_ = 0;
};

std::vector<Job> MakeJobs(const std::string& part, const faults::Thinning& thinning) {
  constexpr int kStride = 7;
  int first = 0;
  std::vector<Job> jobs;
  for (const Fault& fault : kFaults)
    for (const faults::RunOperation& operation : faults::RunOperations())
      for (const bool resumes : {true, false}) {
        const Job job{operation, &fault, resumes, first, kEvery * thinning.points};
        first += kStride;
        if ((RowOf(job) + " " + fault.name).find(part) != std::string::npos) jobs.push_back(job);
      }
  return thinning.Of(jobs);
}

}  // namespace

int main(int argc, char** argv) {
  if (const std::string why = faults::WhyNotHere("run_node_faults"); !why.empty()) {
    std::fputs(why.c_str(), stderr);
    return faults::kLeftOut;
  }
  const faults::Thinning thinning;
  const std::vector<Job> jobs = MakeJobs(argc > 1 ? argv[1] : "", thinning);
  faults::SecretWatch watch;
  std::vector<std::string> rows;
  for (const Job& job : jobs) rows.push_back(RowOf(job));
  faults::PrintHead();
  faults::RunJobs(rows, kWorkers, [&](int number, const faults::Report& report) {
    const auto worker =
        std::make_shared<Worker>(number, report, thinning.IsWhole() ? kTimes : kSlowTimes);
    return [&jobs, worker](std::size_t job) { worker->Do(jobs[job]); };
  });
  if (const std::string seen = watch.Stop(); !seen.empty())
    faults::Row("command lines").Violation("a secret was on one: " + seen);
  return faults::Finish();
}
