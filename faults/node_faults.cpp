// Tests all work of the library on a node under faults: a cut connection, a silent node, a pulled
// cable, a crash, a full or read-only disk. A fault comes before several system calls of each
// transfer, on a server that allows one session at a time. Checks that a call ends in time with the
// right answer or an error that its header names, that node and this host are in an allowed state,
// that nothing leaks, and that the same call on a new session works after the fault.
//
// Usage: lab/run --bind BUILD node_faults [PART-OF-A-NAME]
//
// With BREFIR_FAULT_STEP in the environment it does less, for slow builds: fewer faults at fewer
// points, fewer workers, and more time for each call.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>

#include "faults/node_operation.h"
#include "faults/node_states.h"
#include "faults/table.h"
#include "faults/workers.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "pnl/str.h"
#include "support/belongings.h"
#include "support/faults.h"
#include "support/lab.h"
#include "support/repo_server.h"

namespace node_faults {

void Expect(bool right, const std::string& what) {
  if (!right) throw Wrong{what};
}

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using faults::Report;

pnl_log::Module log_module("faults");

constexpr int kWorkers = 20;  // workers mostly wait for silent nodes
constexpr int kThinWorkers = 8;
constexpr int kThinPatience = 3;  // times the time that a call may take
constexpr int kMaxOperations = 200;
constexpr unsigned kHung = 90;  // seconds, then a call is taken to hang
constexpr const char* kLog = "var/node_faults.log";
constexpr const char* kSessionErrors = "ssh_connect ssh_exec ssh_timeout ssh_closed";

struct Fault {
  const char* name;    ///< as lab/fault has it, but for a crash
  const char* end;     ///< what undoes it; "" where nothing has to
  bool lasts = false;  ///< to be there before the call begins, at one point only
};
constexpr Fault kFaults[] = {
    {"silence", "resume"}, {"unplug", "plug"},   {"crash", ""},
    {"cut", ""},           {"fill", "writable"}, {"readonly", "writable", true},
};

struct Job {
  const Operation* operation;
  const Fault* fault;
  const Crowd* crowd;
  std::atomic<int>* calls;  ///< that a good run of the operation makes; 0 while nobody knows
};

/// The calls of each operation, in memory that all workers have.
struct Shared {
  std::atomic<int> calls[kMaxOperations];
};

std::string NameOf(const Job& job) {
  return job.crowd != nullptr ? job.crowd->name : job.operation->name;
}

bool Contains(const std::string& words, const std::string& word) {
  return (" " + words + " ").find(" " + word + " ") != std::string::npos;
}

// --- A worker

double Seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// How a call ended.
struct Outcome {
  int calls = 0;         ///< that it made
  bool reached = false;  ///< the point came
  std::string error;     ///< type; "" for a return
  std::string wrong;     ///< what must not be
  double seconds = 0;
};

class Worker {
 public:
  Worker(int number, Report report, bool thin) : report_(report), thin_(thin) {
    faults::EnterPanel(number);
    fs::create_directories("src");
    Put("src/big", NewText());
    Put("src/small", "small");
    Put("etc/list", "big\n");
    PNL_LOG(log_module, 1, "begin");
    before_.emplace();
    Put("etc/brefir.conf",
        "download_server = http://10.99.0.1:8080/\nsigning_key_server = http://10.99.0.1:8080\n");
    Put("var/recipes/local/r",
        "# metadata_begin\n# recipe: R\n# tags: t\n# metadata_end\nsleep 0.2; echo the end\n");
  }

  void Run(const Job& job) {
    fault_ = job.fault;
    point_ = 0;
    row_ = NameOf(job);
    try {
      if (job.crowd != nullptr) {
        alarm(2 * kHung);
        for (const std::string& state : job.crowd->run()) report_.Point(row_, state);
      } else {
        alarm(kHung);
        RunOperation(*job.operation, *job.calls);
      }
    } catch (const std::exception& error) {
      Violation(error.what());
    }
  }

 private:
  void RunOperation(const Operation& operation, std::atomic<int>& calls) {
    if (!fault_->lasts && calls == 0) calls = GoodRun(operation);
    for (const int nth : Points(operation, calls)) Point(operation, nth);
    point_ = 0;
    GoodRun(operation);
    report_.Point(row_, "well again");
  }

  void Violation(const std::string& what) const {
    report_.Violation(row_, std::string(fault_ == nullptr ? "" : fault_->name) + " before call " +
                                std::to_string(point_) + ": " + what);
  }

  // --- Nodes

  const support::LabNode& Node(const Operation& operation) {
    auto& node = nodes_[operation.os];
    if (node) return *node;
    support::LabOptions options{.sshd = {"MaxSessions 1"}};
    if (operation.os == "debian12") options.disk = "32m";
    const bool panel = operation.os == "panel";
    node = std::make_unique<support::LabNode>(panel ? "debian12" : operation.os, options);
    if (panel) {
      Shell(BREFIR_SOURCE_DIR "/lab/install-panel " + node->Name() + " " +
            pnl_file::GetCurrentDir() + " " BREFIR_BIN_DIR "/brefirctl");
    }
    return *node;
  }

  Site MakeSite(const Operation& operation) {
    const support::LabNode& node = Node(operation);
    while (operation.with_peers && peers_.size() < 2) {
      peers_.push_back(std::make_unique<support::LabNode>());
    }
    Site site{node, peers_, "/t/" + std::to_string(++sites_), nullptr};
    Put(site.Here(site.Path("f")), OldText());
    if (operation.prepare) operation.prepare(site);
    if (operation.logs_in) site.session = LogIn(node);
    return site;
  }

  /// The network of this host may take a moment to see that a cable is plugged in again.
  static std::unique_ptr<pnl_rpc::SSH> LogIn(const support::LabNode& node) {
    for (int tries = 5;; --tries) {
      try {
        auto ssh = std::make_unique<pnl_rpc::SSH>(node.Login());
        ssh->SetTimeout(kTimeout);
        return ssh;
      } catch (const pnl_err::Error& error) {
        if (tries == 0 || error.type() != pnl_rpc::kSshConnect) throw;
        pnl_proc::Sleep(500);
      }
    }
  }

  void Begin(const support::LabNode& node) const {
    if (fault_->name == std::string("crash")) return node.Kill();
    node.Fault(fault_->name);
  }

  void End(const support::LabNode& node) const {
    if (fault_->name == std::string("crash")) return node.Reboot();
    if (fault_->end[0] != '\0') node.Fault(fault_->end);
  }

  /// What still runs on the node for sessions that are gone may yet change a file, and does so
  /// while it is read. A session whose last packet was lost waits for ever, and is cut.
  static void Settle(const support::LabNode& node) {
    if (Commands(node, 50).empty()) return;
    node.Fault("cut");
    const std::string running = Commands(node, 300);
    Expect(running.empty(), "still runs on the node: " + running);
  }

  /// What sessions have running there after `tenths` of a second at most: a session of SSH is one
  /// of processes, too. What only sleeps was left there on purpose.
  static std::string Commands(const support::LabNode& node, int tenths) {
    return node.Exec("for i in `seq " + std::to_string(tenths) +
                     "`; do running=`ps -e -o sid=,args= | grep -Ev '^ *0 |^ *[0-9]+ sleep '` || "
                     "exit 0; sleep 0.1; done; echo \"$running\"");
  }

  // --- Points

  std::vector<int> Points(const Operation& operation, int calls) const {
    if (fault_->lasts) return {1};
    const bool often = Contains("cut silence", fault_->name);
    const int wanted = thin_ ? 1 : often ? operation.points : 2;
    const int first = operation.early ? 1 : 1 + calls / 4;
    const int last = calls * 9 / 10;  // no two runs make the same number
    std::vector<int> points;
    for (int i = 0; i < wanted; ++i) {
      const int point = wanted == 1 ? calls / 2 : first + (last - first) * i / (wanted - 1);
      if (points.empty() || point > points.back()) points.push_back(std::max(point, 1));
    }
    return points;
  }

  Outcome Call(const Operation& operation, Site& site, int nth) {
    Outcome outcome;
    double taken = 0;  // by the fault
    const auto work = [&] {
      const auto start = Clock::now();
      try {
        operation.call(site);
      } catch (const pnl_err::Error& error) {
        outcome.error = error.type();
        what_ = error.what();
      } catch (const std::exception& error) {
        outcome.wrong = std::string("wrong: ") + error.what();
      }
      pnl_job::Rollback();
      outcome.seconds = Seconds(start);
    };
    const auto event = [&] {
      outcome.reached = true;
      const auto start = Clock::now();
      try {
        Begin(site.node);
      } catch (const std::exception& error) {
        Violation(error.what());
      }
      taken = Seconds(start);
      return 0;
    };
    const auto decide = [&](const support::Call&) { return ++outcome.calls == nth ? event() : 0; };
    support::Intercept(operation.calls, decide, work);
    outcome.seconds -= taken;
    return outcome;
  }

  /// On a busy machine a fault that is over may still cause a time-out.
  int GoodRun(const Operation& operation) {
    for (int tries = 2;; --tries) {
      try {
        return GoodTry(operation);
      } catch (const std::exception&) {
        if (tries == 0) throw;
        pnl_proc::Sleep(2000);
      }
    }
  }

  /// Without a fault, on a fresh session: how many calls there are.
  int GoodTry(const Operation& operation) {
    Site site = MakeSite(operation);
    const Outcome outcome = Call(operation, site, INT_MAX);
    Expect(outcome.wrong.empty(), outcome.wrong);
    if (!outcome.error.empty()) throw Wrong{what_};
    const std::string state = operation.state ? operation.state(site) : "";
    Expect(state.empty() || operation.done.starts_with(state), "without a fault: " + state);
    fs::remove_all(site.Here(site.dir));
    return outcome.calls;
  }

  void Point(const Operation& operation, int nth) {
    alarm(kHung);
    point_ = nth;
    std::optional<Site> site(MakeSite(operation));
    const std::uintmax_t log = fs::file_size(kLog);
    const Outcome outcome = Call(operation, *site, nth);
    site->session.reset();
    if (outcome.reached) End(site->node);
    Settle(site->node);
    Judge(operation, *site, outcome, log);
    fs::remove_all(site->Here(site->dir));
    site.reset();
    const std::string leak = before_->Leak();
    if (leak.empty()) return;
    Violation(leak);
    before_.emplace();
  }

  void Judge(const Operation& operation, const Site& site, const Outcome& outcome,
             std::uintmax_t log) {
    if (!outcome.wrong.empty()) return Violation(outcome.wrong);
    if (outcome.seconds > operation.seconds * (thin_ ? kThinPatience : 1)) {
      Violation("took " + std::to_string(outcome.seconds) + " s");
    }
    const bool threw = !outcome.error.empty();
    if (threw && !Contains(kSessionErrors, outcome.error) &&
        !Contains(operation.errors, outcome.error)) {
      Violation("not an error of this function: " + what_);
    }
    const std::string state = operation.state ? operation.state(site) : "";
    std::string told = threw ? "told" : "done";
    if (!state.empty() && !Contains(threw ? operation.failed : operation.done, state)) {
      const bool disk = fault_->name == std::string("fill") || fault_->lasts;
      const bool silent = !threw && disk && Contains(operation.silent, state);
      if (!silent) return Violation(told + (threw ? " '" + what_ + "'" : "") + ", but " + state);
      if (Get(kLog).find("exit code", log) == std::string::npos) Violation("silent, not logged");
      told = "logged";
    }
    report_.Point(row_, state.empty() ? told : told + "/" + state);
  }

  Report report_;
  bool thin_;
  std::map<std::string, std::unique_ptr<support::LabNode>> nodes_;
  std::vector<std::unique_ptr<support::LabNode>> peers_;
  int sites_ = 0;
  std::optional<support::Belongings> before_;

  std::string row_;
  const Fault* fault_ = nullptr;
  int point_ = 0;
  std::string what_;  // of the error thrown last
};

// --- All of it

std::vector<Job> MakeJobs(const std::vector<Operation>& operations,
                          const std::vector<Crowd>& crowds, bool thin, Shared& shared) {
  std::vector<Job> jobs;
  for (const Crowd& crowd : crowds) jobs.push_back({nullptr, nullptr, &crowd, nullptr});
  for (const Fault& fault : kFaults) {
    if (thin && !Contains("silence cut", fault.name)) continue;
    for (const Operation& operation : operations) {
      // A disk does not matter to what writes nothing.
      if (!operation.state && Contains("fill readonly", fault.name)) continue;
      if (Contains(operation.faults, fault.name)) {
        jobs.push_back(
            {&operation, &fault, nullptr, &shared.calls[&operation - operations.data()]});
      }
    }
  }
  return jobs;
}

/// What the library left in this host's /tmp, and programs that it left running.
/// Working copies that are whole are kept where they could not be written back.
std::string Leftovers() {
  for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
    if (!entry.path().filename().string().starts_with("conf.")) continue;
    const std::string text = Get(entry.path());
    if (text == NewText() || text == OldText() + "key=value\n") std::filesystem::remove(entry);
  }
  return Shell(
      "find /tmp -maxdepth 1 -newer /panel \\( -name 'conf.*' -o -name 'filelist.*' "
      "-o -name 'check-local*' \\); pgrep -lx 'ssh|tar|rsync' || true");
}

int RunAll(const std::string& part, bool thin) {
  std::vector<Operation> operations =
      faults::Joined({FileOperations(), SystemOperations(), KeyOperations(), ProgramOperations()});
  std::vector<Crowd> crowds = Crowds();
  const auto unwanted = [&](const auto& thing) {
    return thing.name.find(part) == std::string::npos;
  };
  std::erase_if(operations, unwanted);
  std::erase_if(crowds, unwanted);
  if (thin) crowds.clear();
  // Those that wait long come first.
  std::ranges::stable_sort(operations, std::greater{}, &Operation::seconds);
  void* memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED || operations.size() > kMaxOperations) return 1;
  auto& shared = *new (memory) Shared{};
  const std::vector<Job> jobs = MakeJobs(operations, crowds, thin, shared);

  fs::create_directories("/panel/repos");
  fs::current_path("/panel");
  Put("/root/.ssh/config", "ConnectTimeout 4\nServerAliveInterval 2\nServerAliveCountMax 2\n");
  std::optional<support::RepoServer> server;
  if (std::any_of(operations.begin(), operations.end(),
                  [](const Operation& o) { return o.name.starts_with("Installer"); })) {
    Shell(BREFIR_SOURCE_DIR "/lab/make-package-repos repos && cp -r repos/panel/etc /");
    server.emplace("repos", "--bind 10.99.0.1 --port 8080");
  }

  faults::PrintHead();
  std::vector<std::string> rows;
  for (const Job& job : jobs) rows.push_back(NameOf(job));
  faults::RunJobs(rows, thin ? kThinWorkers : kWorkers, [&](int number, const Report& report) {
    const auto worker = std::make_shared<Worker>(number, report, thin);
    return [&jobs, worker](std::size_t job) { worker->Run(jobs[job]); };
  });
  server.reset();
  if (const std::string left = Leftovers(); !left.empty()) {
    faults::Row("what is left on this host").Violation(left);
  }
  return faults::Finish();
}

}  // namespace
}  // namespace node_faults

int main(int argc, char** argv) {
  const bool thin = std::getenv("BREFIR_FAULT_STEP") != nullptr;
  const std::string part = argc > 1 ? argv[1] : "";
  if (const std::string why = faults::WhyNotHere("node_faults"); !why.empty()) {
    std::fputs(why.c_str(), stderr);
    return faults::kLeftOut;
  }
  return node_faults::RunAll(part, thin);
}
