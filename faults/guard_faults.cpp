// Tests the guards of runs on nodes.
//
// Races: steps of a run are claimed by a session at about the second at which their guard goes off. One of
// both must win, and the other must see it: all is new and no guard is left, or the claim fails and all is
// put back.
//
// Rounds: a run changes keys and a kernel parameter, and at a random moment after its guard was armed the
// panel is killed, the link cut, the SSH server stopped, its commands are killed, or the node crashes. When
// the guard's time is over, one of the keys must work. When another process has then resumed or undone the
// run, all must be old with the old key, or new with the new one, as the journal says, and nothing of the
// run may be left. In some rounds the new state shuts the panel out: then all must be old.
//
// Usage: lab/run --bind BUILD guard_faults [PART-OF-A-NAME]
//
// With BREFIR_FAULT_STEP in the environment, it tests only every so many-th.

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "faults/guard_node.h"
#include "faults/guard_races.h"
#include "faults/guard_site.h"
#include "faults/run_site.h"
#include "faults/table.h"
#include "faults/workers.h"
#include "pnl/deadline.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "support/lab.h"

namespace {

using faults::KeyChange;
using faults::KeySite;
using std::chrono::milliseconds;
using std::chrono::seconds;
using support::LabNode;
using Clock = std::chrono::system_clock;

constexpr unsigned kHung = 150;  // seconds, then a round is taken to hang
const faults::GuardTimes kRaceTimes("races: from the guard's second to restored");
const faults::GuardTimes kRoundTimes("rounds: from the guard's second to restored");

enum class Dies { kPanel, kLink, kServer, kCommands, kNode };
constexpr std::pair<Dies, const char*> kDeaths[] = {{Dies::kPanel, "panel killed"},
                                                    {Dies::kLink, "link cut"},
                                                    {Dies::kServer, "sshd stopped"},
                                                    {Dies::kCommands, "commands killed"},
                                                    {Dies::kNode, "node crashed"}};
constexpr int kPlayers = 12;
constexpr const char* kUndoing = "undoing";  // a file that a panel makes before it undoes

struct Round {
  Dies dies;
  std::string row;
  bool systemd;
  bool locks_out;
  bool resumes;  ///< afterwards; else it is undone
};

class Player {
 public:
  Player(int number, const faults::Report& report) : report_(report) {
    faults::EnterPanel(number);
    pnl_log::Reload();
  }

  void Do(const Round& round) {
    alarm(kHung);
    round_ = &round;
    std::optional<KeySite>& site = sites_[round.systemd];
    try {
      if (!site) site.emplace(round.systemd);
      if (spread_ == milliseconds(0)) Measure(*site);
      if (!Play(*site)) site.reset();
    } catch (const std::exception& error) {
      Violation(error.what());
      site.reset();
    }
  }

 private:
  bool Violation(const std::string& what) const {
    report_.Violation(round_->row, std::string(round_->systemd ? "systemd" : "plain") +
                                       (round_->locks_out ? ", locks out" : "") + ", after " +
                                       std::to_string(struck_.count()) + " ms: " + what);
    return false;
  }

  /// The process of a panel that makes the change.
  static pid_t Begin(const KeySite& site, const KeyChange& change) {
    std::fflush(nullptr);
    const pid_t panel = fork();
    if (panel != 0) return panel;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(kHung);
    const auto mark = [](fleet::RunPhase phase, std::size_t /*nodes*/) {
      if (phase == fleet::RunPhase::kUndo) std::ofstream{kUndoing};
    };
    try {
      site.Make(change, {.phase = mark});
    } catch (const std::exception&) {  // what it was is seen in the books and on the node
    }
    _exit(0);
  }

  static bool HasEnded(pid_t process) { return waitpid(process, nullptr, WNOHANG) != 0; }

  static Clock::time_point AwaitArmed(const KeySite& site, pid_t panel) {
    for (; !HasEnded(panel); pnl_proc::Sleep(2))
      if (const auto guard = faults::FindGuard(site.Node()); guard && guard->Stands("armed"))
        if (const auto armed = guard->Armed()) return *armed;
    throw std::runtime_error("no guard was armed");
  }

  /// How long a run takes from the arming to its end, if nothing dies: the moments to be tested.
  void Measure(KeySite& site) {
    const KeyChange change = site.NextChange();
    const pid_t panel = Begin(site, change);
    const auto armed = AwaitArmed(site, panel);
    while (!HasEnded(panel)) pnl_proc::Sleep(2);
    const auto time = std::chrono::duration_cast<milliseconds>(Clock::now() - armed);
    spread_ = std::min<milliseconds>(time, seconds(KeySite::kGuard));
    if (site.State(change) == "new") site.Accept(change);  // a busy machine may be too slow
  }

  /// A run that locks the panel out undoes itself: half of its moments are then.
  void AwaitMoment(Clock::time_point armed, pid_t panel) {
    constexpr int kUndo = 150;  // milliseconds that undoing takes
    if (round_->locks_out && faults::Random(0, 1) == 1) {
      while (!std::filesystem::exists(kUndoing) && !HasEnded(panel)) pnl_proc::Sleep(1);
      pnl_proc::Sleep(faults::Random(0, kUndo));
    } else {
      std::this_thread::sleep_until(
          armed + milliseconds(faults::Random(0, static_cast<int>(spread_.count()))));
    }
    struck_ = std::chrono::duration_cast<milliseconds>(Clock::now() - armed);
  }

  void Strike(const LabNode& node, pid_t panel) const {
    switch (round_->dies) {
      case Dies::kPanel:
        kill(panel, SIGKILL);
        return;
      case Dies::kLink:
        return node.Fault("unplug");
      case Dies::kServer:
        round_->systemd ? void(node.Exec("systemctl stop ssh"))
                        : faults::SignalFirst(node, SIGSTOP);
        return node.Fault("cut");
      case Dies::kCommands:
        return node.Fault("kill");
      case Dies::kNode:
        return node.Reboot();
    }
  }

  void Mend(const LabNode& node) const {
    if (round_->dies == Dies::kLink) node.Fault("plug");
    if (round_->dies != Dies::kServer) return;
    round_->systemd ? void(node.Exec("systemctl start ssh")) : faults::SignalFirst(node, SIGCONT);
  }

  /// Waits until `done`, and meanwhile looks what the guard does.
  template <class Condition>
  void Watch(const LabNode& node, Condition done) {
    for (bool last = false; !last; pnl_proc::Sleep(20)) {
      last = done();
      const auto guard = faults::FindGuard(node);
      if (restored_ || !guard || !guard->Stands("restored")) continue;
      restored_ = true;
      kRoundTimes.Add(*guard, KeySite::kGuard);
    }
  }

  /// Whether it has nothing more to do: it is not there, has put things back, or has lost its process.
  static bool IsOver(const LabNode& node) {
    const auto guard = faults::FindGuard(node);
    return !guard || guard->Stands("restored") || !faults::GuardRuns(node, guard->run);
  }

  bool Play(KeySite& site) {
    const LabNode& node = site.Node();
    const KeyChange change = site.NextChange(round_->locks_out);
    restored_ = false;
    std::filesystem::remove(kUndoing);
    const pid_t panel = Begin(site, change);
    const auto armed = AwaitArmed(site, panel);
    AwaitMoment(armed, panel);
    Strike(node, panel);
    const auto second = armed + seconds(KeySite::kGuard) + milliseconds(300);
    Watch(node, [&] { return Clock::now() >= second; });
    Mend(node);
    Watch(node, [&] { return HasEnded(panel); });
    const pnl_time::Deadline patience(seconds(10));
    Watch(node, [&] { return IsOver(node) || patience.Passed(); });
    if (!IsOver(node)) return Violation("its guard does not end");
    return ExpectDoor(site, change) && Recover(site, change);
  }

  /// Before anybody repairs anything, one of the keys works.
  bool ExpectDoor(const KeySite& site, const KeyChange& change) {
    const std::string keys = site.Door(change);
    if (keys != "old" && (keys != "new" || change.locks_out)) return Violation("the door: " + keys);
    const auto guard = faults::FindGuard(site.Node());
    if (!guard || !guard->Stands("restored")) return true;
    const std::string state = site.State(change);
    return state == "old" || Violation("the guard has put back: " + state);
  }

  bool Recover(KeySite& site, const KeyChange& change) {
    fleet::RecoverOptions options;
    options.timeout = KeySite::kTimeout;
    const auto journal = KeySite::OpenJournal();
    const std::int64_t id = journal->Runs().at(0).id;
    const fleet::RunReport report = round_->resumes ? fleet::ResumeRun(*journal, id, options)
                                                    : fleet::UndoRun(*journal, id, options);
    const bool done = report.state == fleet::RunState::kDone;
    const std::string books = std::string(ToText(report.state)) + ": " + faults::Reasons(report);
    if (!done && report.state != fleet::RunState::kUndone) return Violation(books);
    if (done && (change.locks_out || !round_->resumes))
      return Violation("must be undone: " + books);
    const std::string state = site.State(change);
    if (state != (done ? "new" : "old")) return Violation("the node " + state + "; " + books);
    if (site.Door(change) != state) return Violation("the door: " + site.Door(change));
    const std::string left = site.Leftovers();
    if (!left.empty()) return Violation("left: " + left + "; " + books);
    report_.Point(round_->row, state + (restored_ ? " (guard)" : ""));
    if (done) site.Accept(change);
    return true;
  }

  const faults::Report report_;
  std::map<bool, std::optional<KeySite>> sites_;
  const Round* round_ = nullptr;
  milliseconds spread_{0};
  milliseconds struck_{0};  ///< after the arming
  bool restored_ = false;   ///< the guard has put back
};

std::vector<Round> MakeRounds(const std::string& part, bool systemd, int repeats) {
  std::vector<Round> rounds;
  for (int i = 0; i < repeats; ++i)
    for (const auto& [dies, name] : kDeaths)
      for (const bool resumes : {true, false})
        for (const bool locks_out : {false, true})
          for (const bool on_systemd : {false, true}) {
            // Without systemd, nothing is then left that could put things back.
            const bool lost = dies == Dies::kNode || dies == Dies::kCommands;
            if ((lost && locks_out && !on_systemd) || (on_systemd && !systemd)) continue;
            const std::string row =
                std::string("guard: ") + name + ", then " + (resumes ? "resume" : "undo");
            if (row.find(part) != std::string::npos)
              rounds.push_back({dies, row, on_systemd, locks_out, resumes});
          }
  return rounds;
}

void Play(const std::vector<Round>& rounds) {
  std::vector<std::string> rows;
  for (const Round& round : rounds) rows.push_back(round.row);
  faults::RunJobs(rows, kPlayers, [&](int number, const faults::Report& report) {
    const auto player = std::make_shared<Player>(number, report);
    return [&rounds, player](std::size_t job) { player->Do(rounds[job]); };
  });
}

}  // namespace

int main(int argc, char** argv) {
  if (const std::string why = faults::WhyNotHere("guard_faults"); !why.empty()) {
    std::fputs(why.c_str(), stderr);
    return faults::kLeftOut;
  }
  constexpr int kRaces = 1000;
  constexpr int kRepeats = 3;
  const std::string part = argc > 1 ? argv[1] : "";
  const faults::Thinning thinning;
  const bool systemd = support::NodesRunSystemd();
  faults::PrintHead();
  if (std::string(faults::kRaceRow).find(part) != std::string::npos)
    faults::RunRaces(kRaces / thinning.jobs / thinning.points, systemd, kRaceTimes);
  Play(thinning.Of(MakeRounds(part, systemd, thinning.IsWhole() ? kRepeats : 1)));
  kRaceTimes.Print();
  kRoundTimes.Print();
  return faults::Finish();
}
