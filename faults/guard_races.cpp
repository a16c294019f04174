#include "faults/guard_races.h"

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>

#include "faults/operation.h"
#include "faults/workers.h"
#include "fleet/host_steps.h"
#include "pnl/deadline.h"
#include "pnl/err.h"
#include "pnl/proc.h"

namespace faults {

const char* const kRaceRow = "guard: claim against firing";

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using support::LabNode;

constexpr unsigned kHung = 60;  // seconds, then a race is taken to hang

/// Whether it comes to hold within this time.
template <class Condition>
bool Soon(Condition condition, milliseconds patience) {
  const pnl_time::Deadline end(patience);
  while (!condition()) {
    if (end.Passed()) return false;
    pnl_proc::Sleep(20);
  }
  return true;
}

constexpr int kRacers = 12;
constexpr std::size_t kArenas = 4;  // nodes: several runs at a time on each

class Racer {
 public:
  Racer(const LabNode& node, const GuardTimes& times, const Report& report)
      : node_(node),
        times_(times),
        report_(report),
        maker_(pnl_rpc::SSH(node.Login())),
        claimer_(pnl_rpc::SSH(node.Login())) {}

  void Race(std::size_t number) try {
    alarm(kHung);
    // No name is a part of another.
    mark_ = {.name = "race-" + std::to_string(number) + "-end", .guard = 1};
    file_ = "/srv/" + mark_.name;
    Put(Path(), "old\n");
    const fleet::RunStep step{.object = file_,
                              .before = fleet::PathState::File("old\n"),
                              .after = fleet::PathState::File("new\n")};
    const fleet::Verdict made = fleet::MakeSteps(maker_, mark_, {step}).at(0);
    if (made.result != fleet::StepResult::kDone) Violation("not made: " + made.reason);
    AwaitMoment();
    const std::string failure = Claim();
    constexpr int kLearn = 3;  // milliseconds: both should win often
    offset_ += milliseconds(failure.empty() ? kLearn : -kLearn);
    failure.empty() ? ExpectClaimed() : ExpectRestored(failure);
    End(failure.empty() ? "new\n" : "old\n");
    report_.Point(kRaceRow, failure.empty() ? "claimed" : "fired");
  } catch (const std::exception& error) {
    Violation(error.what());
  }

 private:
  void Violation(const std::string& what) const {
    report_.Violation(kRaceRow, mark_.name + " on " + node_.Name() + ": " + what);
  }

  void AwaitMoment() const {
    constexpr int kJitter = 40;  // milliseconds
    const auto guard = FindGuard(node_, mark_.name);
    const auto armed = guard ? guard->Armed() : std::nullopt;
    if (!armed) return Violation("no guard");
    std::this_thread::sleep_until(*armed + seconds(mark_.guard) + offset_ +
                                  milliseconds(Random(-kJitter, kJitter)));
  }

  /// What it throws, in words.
  std::string Claim() try {
    fleet::ClaimGuard(claimer_, mark_);
    return "";
  } catch (const pnl_err::Error& error) {
    if (error.type() != fleet::kRunFailed) throw;
    return error.param("message");
  }

  std::string Path() const { return node_.Root().string() + file_; }
  std::string Text() const { return Get(Path()); }
  bool NoProcess() const {
    return Soon([&] { return !GuardRuns(node_, mark_.name); }, seconds(2));
  }

  void ExpectClaimed() {
    if (FindGuard(node_, mark_.name)) Violation("claimed, but the guard is there");
    if (!NoProcess()) Violation("claimed, but its process is there");
    if (Text() != "new\n") Violation("claimed, but the file has " + Text());
    if (fleet::Look(maker_, {}).guards.contains(mark_.name)) Violation("claimed, but it is seen");
  }

  void ExpectRestored(const std::string& failure) {
    if (failure.find("gone off") == std::string::npos) Violation("the claim says: " + failure);
    const auto restored = [&] {
      const auto guard = FindGuard(node_, mark_.name);
      return guard && guard->Stands("restored");
    };
    if (!Soon(restored, seconds(3))) Violation("not restored");
    if (Text() != "old\n") Violation("restored, but the file has " + Text());
    if (const auto guard = FindGuard(node_, mark_.name)) times_.Add(*guard, mark_.guard);
    const auto guards = fleet::Look(maker_, {}).guards;
    const auto seen = guards.find(mark_.name);
    if (seen == guards.end() || seen->second != fleet::GuardState::kRestored)
      Violation("restored, but it is not seen");
  }

  void End(const std::string& text) {
    fleet::EndSteps(maker_, mark_);
    if (Text() != text) Violation("in the end the file has " + Text());
    if (!NoProcess()) Violation("in the end there is a process");
    for (const char* directory : {"srv", "etc/systemd/system", "var/lib/brefir/runs"}) {
      std::error_code none;
      for (const auto& entry :
           std::filesystem::directory_iterator(node_.Root() / directory, none)) {
        const std::string name = entry.path().filename();
        if (name.find(mark_.name) != std::string::npos && entry.path() != Path())
          Violation("left: " + entry.path().string());
      }
    }
    if (FindGuard(node_, mark_.name)) Violation("left: the guard");
  }

  const LabNode& node_;
  const GuardTimes& times_;
  const Report report_;
  pnl_host::Host maker_;
  pnl_host::Host claimer_;
  fleet::RunMark mark_;
  std::string file_;
  milliseconds offset_{-50};  ///< from the guard's second to the middle of the claims
};

}  // namespace

void RunRaces(int races, bool with_systemd, const GuardTimes& times) {
  std::vector<std::unique_ptr<LabNode>> nodes;
  for (std::size_t i = 0; i < kArenas; ++i)
    nodes.push_back(std::make_unique<LabNode>(
        "debian12", support::LabOptions{.systemd = with_systemd && i == 0}));
  const std::vector<std::string> rows(static_cast<std::size_t>(races), kRaceRow);
  RunJobs(rows, kRacers, [&](int number, const Report& report) {
    EnterPanel(number);
    const auto racer =
        std::make_shared<Racer>(*nodes[static_cast<std::size_t>(number) % kArenas], times, report);
    return [racer](std::size_t job) { racer->Race(job); };
  });
}

}  // namespace faults
