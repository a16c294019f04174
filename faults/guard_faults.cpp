// Tests the guards of runs on nodes.
//
// Races: steps of a run are claimed by a session at about the second at which their guard goes off. One of
// both must win, and the other must see it: all is new and no guard is left, or the claim fails and all is
// put back.
//
// Rounds: a run changes keys and a kernel parameter, and at a random moment after its guard was armed the
// panel, the link, the SSH server, the commands there or the node dies. When the guard's time is over, one
// of the keys must work; when another process has then resumed or undone the run, all must be old with the
// old key, or new with the new one, as the journal says, and nothing of the run may be left. In some rounds
// the new state shuts the panel out: then all must be old.
//
// Usage: lab/run --bind BUILD guard_faults [PART-OF-A-NAME]
//
// With BREFIR_FAULT_STEP in the environment, it tests only every so many-th.

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <thread>

#include "faults/guard_node.h"
#include "faults/operation.h"
#include "faults/run_site.h"
#include "faults/table.h"
#include "faults/workers.h"
#include "fleet/edits.h"
#include "fleet/host_steps.h"
#include "pnl/deadline.h"
#include "pnl/err.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "support/lab.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using support::LabNode;
using Clock = std::chrono::system_clock;

constexpr unsigned kHung = 150;  // seconds, then something is taken to hang
const faults::GuardTimes kRaceTimes("races: from the guard's second to restored");
const faults::GuardTimes kRoundTimes("rounds: from the guard's second to restored");

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

int Random(int from, int to) {
  static thread_local std::mt19937 generator(std::random_device{}());
  return std::uniform_int_distribution<int>(from, to)(generator);
}

// --- Races

constexpr const char* kRace = "guard: claim against firing";
constexpr int kRaces = 1000;
constexpr int kRacers = 12;
constexpr std::size_t kArenas = 4;  // nodes: several runs at a time on each

class Racer {
 public:
  Racer(const LabNode& node, const faults::Report& report)
      : node_(node),
        report_(report),
        maker_(pnl_rpc::SSH(node.Login())),
        claimer_(pnl_rpc::SSH(node.Login())) {}

  void Race(std::size_t number) try {
    alarm(kHung);
    mark_ = {.name = "race-" + std::to_string(number), .guard = 1};
    file_ = "/srv/" + mark_.name;
    faults::Put(node_.Root().string() + file_, "old\n");
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
    report_.Point(kRace, failure.empty() ? "claimed" : "fired");
  } catch (const std::exception& error) {
    Violation(error.what());
  }

 private:
  void Violation(const std::string& what) const {
    report_.Violation(kRace, mark_.name + " on " + node_.Name() + ": " + what);
  }

  void AwaitMoment() const {
    constexpr int kJitter = 40;  // milliseconds
    const auto guard = faults::FindGuard(node_, mark_.name);
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

  std::string Text() const { return faults::Get(node_.Root().string() + file_); }
  bool NoProcess() const {
    return Soon([&] { return !faults::GuardRuns(node_, mark_.name); }, seconds(2));
  }

  void ExpectClaimed() {
    if (faults::FindGuard(node_, mark_.name)) Violation("claimed, but the guard is there");
    if (!NoProcess()) Violation("claimed, but its process is there");
    if (Text() != "new\n") Violation("claimed, but the file has " + Text());
    if (fleet::Look(maker_, {}).guards.contains(mark_.name)) Violation("claimed, but it is seen");
  }

  void ExpectRestored(const std::string& failure) {
    if (failure.find("gone off") == std::string::npos) Violation("the claim says: " + failure);
    const auto restored = [&] {
      const auto guard = faults::FindGuard(node_, mark_.name);
      return guard && guard->Stands("restored");
    };
    if (!Soon(restored, seconds(3))) Violation("not restored");
    if (Text() != "old\n") Violation("restored, but the file has " + Text());
    if (const auto guard = faults::FindGuard(node_, mark_.name))
      kRaceTimes.Add(*guard, mark_.guard);
    const auto guards = fleet::Look(maker_, {}).guards;
    const auto seen = guards.find(mark_.name);
    if (seen == guards.end() || seen->second != fleet::GuardState::kRestored)
      Violation("restored, but it is not seen");
  }

  void End(const std::string& text) {
    fleet::EndSteps(maker_, mark_);
    if (Text() != text) Violation("in the end the file has " + Text());
    if (!NoProcess()) Violation("in the end there is a process");
    const std::string root = node_.Root();
    for (const std::string& left :
         {root + "/var/lib/brefir/runs/" + mark_.name,
          root + "/etc/systemd/system/brefir-guard-" + mark_.name + ".service",
          root + "/srv/.brefir-old-" + mark_.name + "-0"})
      if (std::filesystem::exists(left)) Violation("left: " + left);
    if (faults::FindGuard(node_, mark_.name)) Violation("left: the guard");
  }

  const LabNode& node_;
  const faults::Report report_;
  pnl_host::Host maker_;
  pnl_host::Host claimer_;
  fleet::RunMark mark_;
  std::string file_;
  milliseconds offset_{-50};  ///< from the guard's second to the middle of the claims
};

void RunRaces(int races, bool systemd) {
  std::vector<std::unique_ptr<LabNode>> nodes;
  for (std::size_t i = 0; i < kArenas; ++i)
    nodes.push_back(
        std::make_unique<LabNode>("debian12", support::LabOptions{.systemd = systemd && i == 0}));
  const std::vector<std::string> rows(static_cast<std::size_t>(races), kRace);
  faults::RunJobs(rows, kRacers, [&](int number, const faults::Report& report) {
    faults::EnterPanel(number);
    const auto racer =
        std::make_shared<Racer>(*nodes[static_cast<std::size_t>(number) % kArenas], report);
    return [racer](std::size_t job) { racer->Race(job); };
  });
}

// --- A node whose keys are changed

constexpr int kGuard = 3;    // seconds
constexpr int kTimeout = 4;  // seconds that a node may be without a sign of life
constexpr const char* kPlace = "/srv/t/number";
constexpr const char* kKeys = "/root/.ssh/authorized_keys";
constexpr const char* kForward = "net.ipv4.ip_forward";

/// Takes the node to a number. Each number has a key of its own, that of the next but one is the same.
struct Change {
  int number = 0;
  bool locks_out = false;  ///< the panel's own key is gone then
};

class Site {
 public:
  explicit Site(bool systemd)
      : node_("debian12",
              {.sshd = {"AuthorizedKeysFile .ssh/authorized_keys"}, .systemd = systemd}) {
    for (const char* key : {"key0", "key1"})
      if (!std::filesystem::exists(key))
        faults::Shell(std::string("ssh-keygen -q -t ed25519 -N '' -C ") + key + " -f " + key);
    const std::string root = node_.Root();
    faults::Put(root + kPlace, "0\n");
    faults::Put(root + kKeys, KeysOf({}), 0600);
    node_.Exec("echo net.ipv4.ip_forward = 0 >/etc/sysctl.conf; sysctl -qw net.ipv4.ip_forward=0");
  }

  const LabNode& Node() const { return node_; }
  /// A process that was forked must not use the connection of another.
  static std::unique_ptr<fleet::Journal> OpenJournal() {
    return std::make_unique<fleet::Journal>(pnl_db::Cache::Open("sqlite:fleet.db"));
  }
  const Change& Present() const { return present_; }
  void Accept(const Change& change) { present_ = change; }

  /// Plans and makes it.
  fleet::RunReport Make(const Change& change) const {
    fleet::RunOptions options;
    options.command = "change " + std::to_string(change.number);
    options.policy.guard = kGuard;
    options.timeout = kTimeout;
    fleet::RunTarget target{node_.Name(), node_.Login(kTimeout)};
    const auto journal = OpenJournal();
    fleet::Run run(journal.get(), {target}, options);
    run.Plan(EditsOf(change));
    return run.Make();
  }

  /// "old", "new", or what is there in words.
  std::string State(const Change& change) const {
    const std::string old_one = Described(present_);
    const std::string new_one = Described(change);
    return faults::OldOrNew(Found(), old_one, new_one);
  }
  /// Which keys are there, and whether they work: "old", "new", or what is wrong.
  std::string Keys(const Change& change) const {
    const std::string text = faults::Get(node_.Root().string() + kKeys);
    const std::string found = faults::OldOrNew(text, KeysOf(present_), KeysOf(change));
    if (found != "old" && found != "new") return "keys '" + found + "'";
    const int number = found == "old" ? present_.number : change.number;
    return faults::LetsIn(node_, KeyOf(number)) ? found : "no login with the " + found + " key";
  }
  std::string Leftovers() const {
    const auto guard = faults::FindGuard(node_);
    return faults::LeftoversIn(node_.Root(), {"srv", "root", "etc"}) +
           (guard ? guard->dir.string() : "");
  }

 private:
  static std::string KeyOf(int number) { return "key" + std::to_string(number % 2); }
  static std::string LineOf(const std::string& key) {
    const std::string line = faults::Get(key + ".pub");
    return line.substr(0, line.find('\n'));
  }
  static std::string KeysOf(const Change& change) {
    return (change.locks_out ? "" : LineOf(support::LabKey()) + "\n") +
           LineOf(KeyOf(change.number)) + "\n";
  }
  static std::string Forward(const Change& change) { return std::to_string(change.number % 2); }

  static std::string Described(const Change& change) {
    return std::to_string(change.number) + "\n" + KeysOf(change) + "forward " + Forward(change) +
           "\nnet.ipv4.ip_forward = " + Forward(change) + "\n";
  }
  std::string Found() const {
    const std::string root = node_.Root();
    return faults::Get(root + kPlace) + faults::Get(root + kKeys) + "forward " +
           node_.Exec("sysctl -n net.ipv4.ip_forward") + faults::Get(root + "/etc/sysctl.conf");
  }

  std::vector<fleet::Edit> EditsOf(const Change& change) const {
    const std::string text = std::to_string(change.number) + "\n";
    std::vector<fleet::Edit> edits = {
        {.look = [](fleet::Looks& looks) { looks.files.insert(kPlace); },
         .make = [text](fleet::Draft& draft) { draft.Write(kPlace, text); }},
        fleet::AuthorizedKeyEdit("root", LineOf(KeyOf(present_.number)), false),
        fleet::AuthorizedKeyEdit("root", LineOf(KeyOf(change.number)), true),
        fleet::ParametersEdit({{kForward, Forward(change)}})};
    if (change.locks_out)
      edits.push_back(fleet::AuthorizedKeyEdit("root", LineOf(support::LabKey()), false));
    return edits;
  }

  LabNode node_;
  Change present_;
};

// --- Rounds

enum class Dies { kPanel, kLink, kServer, kCommands, kNode };
constexpr std::pair<Dies, const char*> kDeaths[] = {{Dies::kPanel, "the panel"},
                                                    {Dies::kLink, "the link"},
                                                    {Dies::kServer, "sshd"},
                                                    {Dies::kCommands, "the commands"},
                                                    {Dies::kNode, "the node"}};
constexpr int kPlayers = 12;

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
    std::optional<Site>& site = sites_[round.systemd];
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
  static pid_t Begin(const Site& site, const Change& change) {
    std::fflush(nullptr);
    const pid_t panel = fork();
    if (panel != 0) return panel;
    alarm(kHung);
    try {
      site.Make(change);
    } catch (const std::exception&) {  // what it was is seen in the books and on the node
    }
    _exit(0);
  }

  static bool HasEnded(pid_t process) { return waitpid(process, nullptr, WNOHANG) != 0; }

  static Clock::time_point AwaitArmed(const Site& site, pid_t panel) {
    for (; !HasEnded(panel); pnl_proc::Sleep(2))
      if (const auto guard = faults::FindGuard(site.Node()); guard && guard->Stands("armed"))
        if (const auto armed = guard->Armed()) return *armed;
    throw std::runtime_error("no guard was armed");
  }

  /// How long a run takes from the arming to its end, if nothing dies: the moments to be tested.
  void Measure(Site& site) {
    const Change change{site.Present().number + 1};
    const pid_t panel = Begin(site, change);
    const auto armed = AwaitArmed(site, panel);
    while (!HasEnded(panel)) pnl_proc::Sleep(2);
    const auto time = std::chrono::duration_cast<milliseconds>(Clock::now() - armed);
    spread_ = std::min<milliseconds>(time, seconds(kGuard));
    const std::string state = site.State(change);
    if (state != "new") throw std::runtime_error("without a fault: " + state);
    site.Accept(change);
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
    for (; !done(); pnl_proc::Sleep(20)) {
      const auto guard = faults::FindGuard(node);
      if (restored_ || !guard || !guard->Stands("restored")) continue;
      restored_ = true;
      kRoundTimes.Add(*guard, kGuard);
    }
  }

  /// Whether it has nothing more to do: it is not there, has put things back, or has lost its process.
  static bool IsOver(const LabNode& node) {
    const auto guard = faults::FindGuard(node);
    return !guard || guard->Stands("restored") || !faults::GuardRuns(node, guard->run);
  }

  bool Play(Site& site) {
    const LabNode& node = site.Node();
    const Change change{site.Present().number + 1, round_->locks_out};
    restored_ = false;
    const pid_t panel = Begin(site, change);
    const auto armed = AwaitArmed(site, panel);
    struck_ = milliseconds(Random(0, static_cast<int>(spread_.count())));
    std::this_thread::sleep_until(armed + struck_);
    Strike(node, panel);
    const auto second = armed + seconds(kGuard) + milliseconds(300);
    Watch(node, [&] { return Clock::now() >= second; });
    Mend(node);
    Watch(node, [&] { return HasEnded(panel); });
    const pnl_time::Deadline patience(seconds(10));
    Watch(node, [&] { return IsOver(node) || patience.Passed(); });
    if (!IsOver(node)) return Violation("its guard does not end");
    return ExpectDoor(site, change) && Recover(site, change);
  }

  /// Before anybody repairs anything, one of the keys works.
  bool ExpectDoor(const Site& site, const Change& change) {
    const std::string keys = site.Keys(change);
    if (keys != "old" && (keys != "new" || change.locks_out)) return Violation("the door: " + keys);
    const auto guard = faults::FindGuard(site.Node());
    if (!guard || !guard->Stands("restored")) return true;
    restored_ = true;
    const std::string state = site.State(change);
    return state == "old" || Violation("the guard has put back: " + state);
  }

  bool Recover(Site& site, const Change& change) {
    fleet::RecoverOptions options;
    options.timeout = kTimeout;
    const auto journal = Site::OpenJournal();
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
    if (site.Keys(change) != state) return Violation("the door: " + site.Keys(change));
    const std::string left = site.Leftovers();
    if (!left.empty()) return Violation("left: " + left + "; " + books);
    report_.Point(round_->row, state + (restored_ ? " (guard)" : ""));
    if (done) site.Accept(change);
    return true;
  }

  const faults::Report report_;
  std::map<bool, std::optional<Site>> sites_;
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
            // The node itself is then all that is left to put back: without systemd it cannot.
            const bool lost = dies == Dies::kNode || dies == Dies::kCommands;
            if ((lost && locks_out && !on_systemd) || (on_systemd && !systemd)) continue;
            const std::string row =
                std::string("guard: ") + name + " dies, then " + (resumes ? "resume" : "undo");
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
  constexpr int kRepeats = 3;
  const std::string part = argc > 1 ? argv[1] : "";
  const faults::Thinning thinning;
  const bool systemd = support::NodesRunSystemd();
  faults::PrintHead();
  if (std::string(kRace).find(part) != std::string::npos)
    RunRaces(kRaces / thinning.jobs / thinning.points, systemd);
  Play(thinning.Of(MakeRounds(part, systemd, thinning.IsWhole() ? kRepeats : 1)));
  kRaceTimes.Print();
  kRoundTimes.Print();
  return faults::Finish();
}
