#include "faults/run_site.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "faults/operation.h"
#include "fleet/edits.h"
#include "pnl/err.h"
#include "pnl/proc.h"
#include "pnl/ssh.h"
#include "pnl/str.h"

namespace faults {
namespace {

namespace fs = std::filesystem;

constexpr const char* kConf = "/srv/t/app.conf";
constexpr const char* kKeys = "/srv/t/keys";
constexpr const char* kSecret = "/srv/t/secret";
constexpr const char* kMade = "/srv/t/made";
constexpr const char* kLog = "/srv/log";
constexpr const char* kRuns = "/var/lib/brefir/runs";
constexpr const char* kKeyLine =
    "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA even";

/// The beginning of everything secret: nobody but the nodes may have it. Only this process knows it: a
/// word of the source would also be in a file of a compiler that is at work in /tmp.
const std::string kSecretWord = "hidden-word-" + std::to_string(std::random_device{}()) + "-";
const fs::file_time_type kBegan = fs::file_time_type::clock::now();

std::string SecretText(int number) {
  return kSecretWord + std::to_string(number) + "\n";
}

bool IsEven(int number) {
  return number % 2 == 0;
}

/// Each change makes one.
std::string DirOf(int number) {
  return "/srv/t/d" + std::to_string(number);
}

fleet::Edit FilesEdit(const RunChange& change) {
  const std::string dir = DirOf(change.number);
  return {.look =
              [dir](fleet::Looks& looks) {
                looks.files.insert({kSecret, kMade, dir + "/file"});
                looks.entries.insert(kMade);
                looks.missing.insert(dir);
              },
          .make =
              [change, dir](fleet::Draft& draft) {
                if (change.secret)
                  draft.Write(kSecret, SecretText(change.number), {.secret = true});
                draft.MakeDirs(dir);
                draft.Write(dir + "/file", "new\n");
                const bool is_there = draft.Entry(kMade).kind != fleet::PathKind::kMissing;
                if (IsEven(change.number) && !is_there) draft.Write(kMade, "even\n");
                if (!IsEven(change.number) && is_there) draft.Remove(kMade);
              }};
}

fleet::Edit CommandEdit(const std::string& name, const std::string& command,
                        const std::string& undo) {
  return {.look = [](fleet::Looks& /*looks*/) {},
          .make = [=](fleet::Draft& draft) { draft.Run(name, command, undo); }};
}

std::vector<fleet::Edit> EditsOf(const RunChange& change, bool is_last) {
  const std::string number = std::to_string(change.number);
  std::vector<fleet::Edit> edits = {
      fleet::SetKeyEdit(kConf, "key", number), FilesEdit(change),
      fleet::AuthorizedKeyEdit(kKeys, kKeyLine, IsEven(change.number))};
  if (change.command)
    edits.push_back(CommandEdit("log " + number, "echo " + number + " >>" + kLog,
                                "sed -i /^" + number + "$/d " + kLog));
  if (change.fails && is_last) edits.push_back(CommandEdit("fail", "exit 7", "true"));
  return edits;
}

}  // namespace

static constexpr const char* kSeen = "/tmp/seen-command-lines";

std::string LeftoversIn(const fs::path& root, const std::vector<std::string>& directories) {
  std::string left;
  for (const std::string& directory : directories)
    for (const auto& entry : fs::recursive_directory_iterator(root / directory)) {
      const std::string name = entry.path().filename();
      if (name.starts_with(".brefir") || name.starts_with("brefir-guard"))
        left += entry.path().string() + " ";
    }
  std::error_code none;
  for (const auto& run : fs::directory_iterator(root.string() + kRuns, none))
    for (const auto& file : fs::directory_iterator(run.path()))
      if (file.path().filename() != "epoch" && file.path().filename() != "marks")
        left += file.path().string() + " ";
  return left;
}

std::string Reasons(const fleet::RunReport& report) {
  std::string reasons = report.reason;
  for (const fleet::NodeReport& node : report.nodes)
    reasons += "; " + node.name + " " + ToText(node.state) + " " + node.reason;
  return reasons;
}

bool LetsIn(const support::LabNode& node, const std::string& key_file) {
  constexpr int kPatience = 3;  // seconds
  constexpr int kPause = 300;   // milliseconds
  pnl_rpc::SshOptions login = node.Login(kPatience);
  login.key_file = key_file;
  for (int tries = 20;; --tries) {
    try {
      const pnl_rpc::SSH session(login);
      return true;
    } catch (const pnl_err::Error& error) {
      if (error.type() == pnl_rpc::kSshAuth) return false;
      if (tries == 0) throw;
    }
    pnl_proc::Sleep(kPause);
  }
}

RunSite::RunSite(std::string database) : database_(std::move(database)) {
  for (std::size_t i = 0; i < kNodes; ++i) {
    nodes_.push_back(
        std::make_unique<support::LabNode>("debian12", support::LabOptions{.disk = "32m"}));
    const std::string name = "n" + std::to_string(i + 1);
    targets_.push_back({name, nodes_.back()->Login()});
    targets_.back().login->name = name;
  }
  Reset();
}

void RunSite::PrepareNode(const support::LabNode& node) const {
  node.Exec(std::string("rm -rf /srv/t /srv/log ") + kRuns + "; mkdir -p /srv/t");
  const std::string root = node.Root();
  Put(root + kConf, "# ours\nkey=0\n");
  Put(root + kKeys, std::string(kKeyLine) + "\n", 0600);
  Put(root + kMade, "even\n");
  Put(root + kSecret, SecretText(0), 0600);  // not by a command: its line would show it
  Put(root + kLog, "");
}

void RunSite::Reset() {
  for (const auto& node : nodes_) PrepareNode(*node);
  const auto journal = OpenJournal();
  for (const fleet::RunHead& run : journal->Unfinished()) {
    const fleet::RunHead taken = journal->TakeOver(run.id, true);
    journal->Move(taken, taken.state, fleet::RunState::kUndone);
  }
  present_ = {};
  secret_ = 0;
  last_ = IsEven(last_) ? last_ : last_ + 1;
}

std::unique_ptr<fleet::Journal> RunSite::OpenJournal() const {
  return std::make_unique<fleet::Journal>(pnl_db::Cache::Open(database_));
}

fleet::RunReport RunSite::Make(fleet::Journal& journal, const RunChange& change,
                               const RunTimes& times, const fleet::RunWatch& watch) const {
  fleet::RunOptions options;
  options.command = "change " + std::to_string(change.number);
  options.timeout = times.timeout;
  options.fan.node_deadline = std::chrono::seconds(times.node_deadline);
  options.watch = watch;
  std::vector<fleet::RunTarget> targets = targets_;
  for (fleet::RunTarget& target : targets) target.login->connect_timeout = times.timeout;
  fleet::Run run(&journal, targets, options);
  run.Plan([&](std::size_t i) { return EditsOf(change, i + 1 == kNodes); });
  return run.Make();
}

fleet::RecoverOptions RunSite::Recovery(const RunTimes& times, const fleet::RunWatch& watch) const {
  fleet::RecoverOptions options;
  options.timeout = times.timeout;
  options.fan.node_deadline = std::chrono::seconds(times.node_deadline);
  options.watch = watch;
  options.login = [times](const fleet::RunNode& /*node*/, pnl_rpc::SshOptions booked) {
    booked.connect_timeout = times.timeout;
    return booked;
  };
  return options;
}

std::string RunSite::StateOf(std::size_t node, const RunChange& change) const {
  const fs::path& root = nodes_[node]->Root();
  const auto get = [&](const char* path) { return Get(root.string() + path); };
  const std::string conf = str::Replace(get(kConf), " ", "");
  const std::string now = std::to_string(change.number);
  const bool is_new = conf == "# ours\nkey=" + now + "\n" || conf == "#ours\nkey=" + now + "\n";
  const RunChange& there = is_new ? change : present_;
  std::string wrong;
  const auto expect = [&](bool right, const std::string& what) {
    if (!right) wrong = str::Append(wrong, what, ", ");
  };
  expect(is_new || conf.ends_with("\nkey=" + std::to_string(present_.number) + "\n"),
         "conf '" + conf + "'");
  expect(get(kKeys) == (IsEven(there.number) ? std::string(kKeyLine) + "\n" : ""), "keys");
  expect(get(kMade) == (IsEven(there.number) ? "even\n" : ""), "made");
  expect(fs::exists(root.string() + DirOf(change.number)) == is_new, "the directory");
  expect(get(kSecret) == SecretText(is_new && change.secret ? change.number : secret_), "secret");
  std::istringstream log(get(kLog));
  const std::multiset<std::string> ran{std::istream_iterator<std::string>(log), {}};
  if (change.command)
    expect(ran.count(now) == (is_new ? 1U : 0U),
           "ran " + std::to_string(ran.count(now)) + " times");
  expect(std::set<std::string>(ran.begin(), ran.end()).size() == ran.size(), "ran twice");
  const std::string left = LeftoversIn(root, {"srv"});
  expect(left.empty(), left + "left");
  return (is_new ? "new" : "old") + (wrong.empty() ? "" : " with " + wrong);
}

std::string RunSite::State(const RunChange& change) const {
  std::set<std::string> states;
  std::string all;
  for (std::size_t i = 0; i < kNodes; ++i) {
    const std::string state = StateOf(i, change);
    states.insert(state);
    all = str::Append(all, targets_[i].name + " " + state, "; ");
  }
  return states.size() == 1 ? *states.begin() : all;
}

std::string RunSite::SecretsHere() const {
  std::string found;
  // /tmp also has what others of this machine have left there, which may be much.
  const auto is_ours = [](const fs::directory_entry& entry) {
    std::error_code gone;
    return entry.is_regular_file(gone) && entry.last_write_time(gone) >= kBegan;
  };
  for (const fs::path& dir : {fs::current_path(), fs::path("/tmp")}) {
    std::error_code gone;
    for (fs::recursive_directory_iterator it(dir, gone), end; it != end; it.increment(gone)) {
      if (it->path().filename().string().starts_with("brefir-postgres"))
        it.disable_recursion_pending();
      if (it->path() == kSeen) continue;
      if (is_ours(*it) && Get(it->path()).find(kSecretWord) != std::string::npos)
        found += it->path().string() + " ";
    }
  }
  const auto journal = OpenJournal();
  const std::vector<fleet::RunHead> runs = journal->Runs();
  if (runs.empty()) return found;
  for (const fleet::RunNode& node : journal->Find(runs.front().id).nodes)
    for (const fleet::RunStep& step : node.steps)
      if (step.Text().find(kSecretWord) != std::string::npos) found += "the journal ";
  return found;
}

// --- SecretWatch

namespace {

/// Of a process that may end meanwhile.
std::string CommandLine(const fs::path& process) try {
  return Get(process.string() + "/cmdline");
} catch (const std::ios_base::failure&) {
  return "";
}

[[noreturn]] void Watch() {
  constexpr std::chrono::milliseconds kPause(50);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (;; std::this_thread::sleep_for(kPause))
    for (const auto& process : fs::directory_iterator("/proc")) {
      const std::string text = CommandLine(process.path());
      if (text.find(kSecretWord) != std::string::npos) std::ofstream(kSeen, std::ios::app) << text;
    }
}

}  // namespace

SecretWatch::SecretWatch() : process_(fork()) {
  if (process_ == 0) Watch();
}

SecretWatch::~SecretWatch() {
  Stop();
}

std::string SecretWatch::Stop() {
  if (process_ > 0) {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    process_ = 0;
  }
  return Get(kSeen);
}

}  // namespace faults
