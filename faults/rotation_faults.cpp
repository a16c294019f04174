// Tests the rotation of the panel's key over three nodes while its process is killed: at every system call
// that others can see, in a rotation, while it is undone, and while a node gets the key that it is owed.
// Right after the kill all nodes must accept the private key that is here; an owed one, the key that is kept for
// it. Then another process resumes or
// undoes the run. Then the pair here is the new one and all nodes have both keys, or it is the old one and
// all nodes are as before; and nothing of the run is left.
//
// Usage: lab/run --bind BUILD rotation_faults [PART-OF-A-NAME]
//
// With BREFIR_FAULT_STEP in the environment, it tests only every so many-th point.

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

#include "faults/operation.h"
#include "faults/run_site.h"
#include "faults/table.h"
#include "faults/workers.h"
#include "fleet/authorized_keys.h"
#include "fleet/key_login.h"
#include "fleet/rotation.h"
#include "pnl/err.h"
#include "pnl/log.h"
#include "support/faults.h"
#include "support/lab.h"

namespace {

namespace fs = std::filesystem;
using faults::Get;
using faults::Put;
using fleet::RunHead;

constexpr int kWorkers = 4;
constexpr std::size_t kNodes = 3;
constexpr unsigned kHung = 90;  // seconds, then a round is taken to hang
constexpr const char* kKeys = "/root/.ssh/authorized_keys";
constexpr const char* kOthers = "# of others\n";

enum class Work { kRotate, kUndo, kPay };
struct Job {
  Work work;
  bool resumes;  ///< afterwards; else it is undone
  int first;     ///< point
  int every;     ///< so many-th point
};

std::string RowOf(const Job& job) {
  const char* work = job.work == Work::kRotate ? "rotation"
                     : job.work == Work::kUndo ? "rotation undone"
                                               : "owed node paid";
  return std::string("key: ") + work + ", then " + (job.resumes ? "resume" : "undo");
}

/// A kill between two of these is the same as one at the second.
std::vector<int> SeenByOthers() {
  return {SYS_sendto, SYS_write,     SYS_pwrite64, SYS_openat, SYS_rename, SYS_renameat2,
          SYS_unlink, SYS_fdatasync, SYS_fsync,    SYS_chmod,  SYS_fchmod, SYS_clone3};
}

/// Three nodes and a pair in the working directory.
class Site {
 public:
  Site() {
    for (std::size_t i = 0; i < kNodes; ++i) {
      nodes_.push_back(std::make_unique<support::LabNode>());
      targets_.push_back({"n" + std::to_string(i + 1), nodes_.back()->Login()});
      targets_.back().login->name = targets_.back().name;
      targets_.back().login->key_file = pair_.private_key;
    }
    faults::Shell("ssh-keygen -q -t ed25519 -N '' -C old -f key");
    Reset();
  }

  /// The nodes accept the present pair, and no run knows of it.
  void Reset() {
    for (const auto& file : fs::directory_iterator("."))
      if (file.path().filename().string().starts_with("key.run-")) fs::remove(file.path());
    fs::remove("key.next");
    fs::remove("key.next.pub");
    const auto journal = OpenJournal();
    for (const RunHead& run : journal->Unfinished()) {
      const RunHead taken = journal->TakeOver(run.id, true);
      journal->Move(taken, taken.state, fleet::RunState::kUndone);
    }
    if (!journal->Runs().empty())
      for (const fleet::RunNode& node : journal->Find(Last()).nodes)
        journal->WriteOff(Last(), node.name, "a new start");
    Remember();
    for (const auto& node : nodes_) {
      node->Exec("rm -rf /var/lib/brefir/runs /run/brefir; rm -f /root/.ssh/.brefir*");
      Put(node->Root().string() + kKeys, kOthers + old_, 0600);
    }
  }
  /// From now on this pair is the old one.
  void Remember() { old_ = Get("key.pub"); }

  /// With `owes`, the last node is not reached.
  void Rotate(bool owes) const {
    const auto journal = OpenJournal();
    const pnl_file::Lock lock = fleet::LockKey(pair_.private_key);
    fleet::RequireNoOpenRotation(*journal, pair_.private_key);
    const fleet::KeyChange key = fleet::MakeNextPair(pair_, fleet::KeyType::kEd25519);
    std::vector<fleet::RunTarget> targets = targets_;
    if (owes) targets.back().login->port = 9;  // refused at once
    fleet::Run run(journal.get(), targets,
                   {.command = "rotation", .key = key, .allow_owed = owes ? 1U : 0U});
    run.Plan({fleet::NewKeyEdit("root", key)});
    run.Make();
  }
  void Resume() const { fleet::ResumeRun(*OpenJournal(), Last(), Recovery()); }
  void Undo() const { fleet::UndoRun(*OpenJournal(), Last(), Recovery()); }
  static std::int64_t Last() {
    const std::vector<RunHead> runs = OpenJournal()->Runs(1);
    return runs.empty() ? 0 : runs.front().id;
  }

  /// Who refuses the key that is here; "" if nobody does. With `owed`, the key that is kept counts, too.
  std::string Refusals(bool owed) const {
    const std::string kept = fleet::KeptKey(pair_, Last());
    std::string refusals;
    for (const auto& node : nodes_)
      if (!faults::LetsIn(*node, pair_.private_key) &&
          !(owed && fs::exists(kept) && faults::LetsIn(*node, kept)))
        refusals += node->Name() + " ";
    return refusals;
  }

  /// "old", "new", or what is there in words.
  std::string State() const {
    const std::string now = Get("key.pub");
    std::string wrong;
    const auto expect = [&](bool right, const std::string& what) {
      if (!right) wrong = str::Append(wrong, what, ", ");
    };
    const bool is_new = now != old_;
    expect(fleet::PublicHalf("key") == fleet::KeyOf(now), "half a pair");
    for (const auto& node : nodes_) {
      const std::string keys = Get(node->Root().string() + kKeys);
      expect(keys == kOthers + old_ + (is_new ? now : ""), node->Name() + " has '" + keys + "'");
      const std::string left = faults::LeftoversIn(node->Root(), {"root"});
      expect(left.empty(), left + "left");
    }
    expect(!fs::exists("key.next") && !fs::exists("key.next.pub"), "a next pair");
    const std::string kept = "key.run-" + std::to_string(Last());
    expect(Get(kept + ".pub") == (is_new ? old_ : ""), "the kept public key");
    expect(fs::exists(kept) == is_new, "the kept private key");
    return (is_new ? "new" : "old") + (wrong.empty() ? "" : " with " + wrong);
  }

 private:
  static std::unique_ptr<fleet::Journal> OpenJournal() {
    return std::make_unique<fleet::Journal>(pnl_db::Cache::Open("sqlite:fleet.db"));
  }
  static fleet::RecoverOptions Recovery() {
    return {.login = [](const fleet::RunNode& /*node*/, pnl_rpc::SshOptions booked) {
      booked.port = 22;
      return booked;
    }};
  }

  const fleet::KeyChange pair_{.private_key = fs::absolute("key"),
                               .public_key = fs::absolute("key.pub")};
  std::vector<std::unique_ptr<support::LabNode>> nodes_;
  std::vector<fleet::RunTarget> targets_;
  std::string old_;
};

/// Calls `work` in a process that is killed at the `nth` call. Returns whether the call came.
bool KilledAt(int nth, const std::function<void()>& work) {
  std::fflush(nullptr);
  const pid_t process = fork();
  if (process == 0) {
    alarm(kHung);
    int count = 0;
    const auto decide = [&](const support::Call& call) {
      if (call.own && ++count == nth) kill(getpid(), SIGKILL);
      return 0;
    };
    const bool whole = support::Intercept(SeenByOthers(), decide, work);
    _exit(whole ? 0 : 1);
  }
  int status = 0;
  waitpid(process, &status, 0);
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return true;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    throw std::runtime_error("it was not killed, and failed: status " + std::to_string(status));
  return false;
}

class Worker {
 public:
  Worker(int number, const faults::Report& report) : report_(report) {
    faults::EnterPanel(number);
    pnl_log::Reload();
  }

  void Do(const Job& job) {
    try {
      if (!site_) site_ = std::make_unique<Site>();
      for (int nth = 1 + job.first % job.every; Point(job, nth);) nth += job.every;
    } catch (const std::exception& error) {
      report_.Violation(RowOf(job), error.what());
      faults::Shell("rm -rf key*");
      site_.reset();
    }
  }

 private:
  /// False when there is no such call any more.
  bool Point(const Job& job, int nth) {
    alarm(2 * kHung);
    const std::string at = "kill " + std::to_string(nth) + ": ";
    site_->Reset();
    if (job.work != Work::kRotate) site_->Rotate(job.work == Work::kPay);
    const std::int64_t before = job.work == Work::kRotate ? Site::Last() : 0;
    const bool killed = KilledAt(nth, [&] {
      if (job.work == Work::kRotate) site_->Rotate(false);
      if (job.work == Work::kUndo) site_->Undo();
      if (job.work == Work::kPay) site_->Resume();
    });
    alarm(kHung);
    if (const std::string who = site_->Refusals(job.work == Work::kPay); !who.empty())
      report_.Violation(RowOf(job), at + "after the kill the key here is refused by " + who);
    if (Site::Last() == before) {  // it was killed before the run was in the books
      fs::remove("key.next");
      fs::remove("key.next.pub");
    } else if (job.resumes) {
      site_->Resume();
    } else {
      site_->Undo();
    }
    const std::string state = site_->State();
    const bool must_be_old = !job.resumes && Site::Last() != before;
    if (state != "old" && (state != "new" || must_be_old))
      report_.Violation(RowOf(job), at + state);
    else if (killed)
      report_.Point(RowOf(job), "kill " + state);
    alarm(0);
    return killed;
  }

  const faults::Report report_;
  std::unique_ptr<Site> site_;
};

/// The points of a job are shared out, so that all workers are busy to the end.
std::vector<Job> MakeJobs(const std::string& part, const faults::Thinning& thinning) {
  constexpr int kShares = 12;
  std::vector<Job> jobs;
  for (const Work work : {Work::kRotate, Work::kUndo, Work::kPay})
    for (const bool resumes : {true, false})
      for (int share = 0; share < kShares; ++share) {
        const Job job{work, resumes, share, kShares * thinning.points};
        if (RowOf(job).find(part) != std::string::npos) jobs.push_back(job);
      }
  return thinning.Of(jobs);
}

}  // namespace

int main(int argc, char** argv) {
  if (const std::string why = faults::WhyNotHere("rotation_faults"); !why.empty()) {
    std::fputs(why.c_str(), stderr);
    return faults::kLeftOut;
  }
  const std::vector<Job> jobs = MakeJobs(argc > 1 ? argv[1] : "", faults::Thinning());
  std::vector<std::string> rows;
  for (const Job& job : jobs) rows.push_back(RowOf(job));
  faults::PrintHead();
  faults::RunJobs(rows, kWorkers, [&](int number, const faults::Report& report) {
    const auto worker = std::make_shared<Worker>(number, report);
    return [&jobs, worker](std::size_t job) { worker->Do(jobs[job]); };
  });
  return faults::Finish();
}
