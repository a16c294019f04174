// One command on each of many nodes, "true" and the one for all facts: compared with bare libssh
// sessions in threads and with whole programs, on 60 nodes; and what 20 dead ones of 300 cost in
// time, memory and descriptors.
//
// It needs a lab with 300 nodes: scripts/bench runs it there. Environment: LAB_KEY, LAB_KNOWN_HOSTS,
// as lab/run gives them.

#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <sstream>
#include <thread>

#include "bare_ssh.h"
#include "fleet/facts.h"
#include "fleet/fan.h"
#include "lab.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace {

using bench::Environment;
using bench::Must;
using bench::Shell;
using std::string;

constexpr std::size_t kAll = 300;
constexpr std::size_t kFew = 60;
constexpr std::size_t kEach = 30;  // of so many nodes one is silent and one unplugged
constexpr int kTimeout = 5;        // seconds
constexpr std::size_t kThreads = 32;
constexpr double kMemoryMiB = 64;
constexpr double kDescriptors = 1024;

struct Node {
  string name;
  string address;
};
using Nodes = std::vector<Node>;

/// What everything works on.
class Scene {
 public:
  Scene() {
    Shell(lab + "/node list >" + (dir / "list"));
    std::istringstream list(pnl_file::Read(dir / "list"));
    for (Node node; list >> node.name >> node.address;) all.push_back(node);
    Must(all.size() == kAll, "as many nodes as there should be");
    few.assign(all.begin(), all.begin() + kFew);
    std::filesystem::current_path(dir / "");  // logs are written there
  }
  ~Scene() { std::filesystem::current_path("/"); }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  /// A file with the addresses, a line each.
  string FileOf(const Nodes& nodes) const {
    string text;
    for (const Node& node : nodes) text += node.address + "\n";
    pnl_file::Write(dir / "nodes", text);
    return dir / "nodes";
  }

  static string Login() {
    return "-i " + Environment("LAB_KEY") +
           " -o UserKnownHostsFile=" + Environment("LAB_KNOWN_HOSTS");
  }
  static string OnNodes(const string& verb, const string& file) {
    return bench::Brefirctl() + " node " + verb + " --nodes " + file + " --key " +
           Environment("LAB_KEY") + " --known-hosts " + Environment("LAB_KNOWN_HOSTS");
  }
  static string Exec(const string& file, const string& options) {
    return OnNodes("exec", file) + options + " -- true";
  }

  const string lab = std::filesystem::current_path() / "lab";
  bench::Dir dir;
  Nodes all, few;
};

const Scene* scene = nullptr;

// --- 60 nodes

template <class Work>
void Visit(benchmark::State& state, const Work& work) {
  for (auto _ : state) {
    fleet::Fan fan({.forks = fleet::kForks});
    const auto visit = [&](const fleet::Turn& turn) {
      pnl_rpc::SSH ssh = turn.LogIn({.host = scene->few[turn.Index()].address,
                                     .key_file = Environment("LAB_KEY"),
                                     .known_hosts = Environment("LAB_KNOWN_HOSTS")});
      work(ssh);
    };
    for (const auto& failure : fan.Visit(kFew, visit))
      Must(!failure, failure ? failure->what() : "");
  }
}

void FanLibrary(benchmark::State& state) {
  Visit(state, [](pnl_rpc::SSH& ssh) { Must(ssh.Execute("true").Result() == 0, "true"); });
}

void FactsLibrary(benchmark::State& state) {
  Visit(state, [](const pnl_rpc::SSH& ssh) {
    pnl_host::Host host(ssh);
    Must(fleet::AskFacts(host).os == "Debian 12.5", "the operating system");
  });
}

void BareThreads(benchmark::State& state) {
  for (auto _ : state) {
    std::atomic<std::size_t> next = 0;
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        for (std::size_t n = 0; (n = next++) < kFew;)
          Must(bench::BareRun(bench::BareConnect(scene->few[n].address), "true") == 0, "true");
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
}

void Program(benchmark::State& state, const string& command) {
  for (auto _ : state) {
    Shell(command + " >/dev/null 2>&1 </dev/null");
    state.PauseTiming();
    // Each run logs in anew.
    Shell("for s in " + (scene->dir / "share-") +
          "*; do [ ! -S $s ] || ssh -q -S $s -O exit x; done");
    state.ResumeTiming();
  }
}

/// With the interpreter's path given, which saves it a look at each node.
string Ansible(const string& file, const string& module, const string& argument = " -a true") {
  return "ANSIBLE_SSH_CONTROL_PATH='" + (scene->dir / "share-") + "%%C' ansible all -f 64 -u root" +
         " -i " + file + " --ssh-common-args=" + pnl_proc::Escape(Scene::Login()) +
         " -e ansible_python_interpreter=/usr/bin/python3 -m " + module + argument;
}

void Register(const string& name, const std::function<void(benchmark::State&)>& function) {
  constexpr int kRepetitions = 7;
  bench::RegisterWaiting(name, function, kRepetitions);
}

void RegisterAll() {
  const string file = scene->FileOf(scene->few);
  const auto program = [](const string& name, const string& command) {
    Register(name, [command](benchmark::State& state) { Program(state, command); });
  };
  Register("FanLibrary", FanLibrary);
  Register("BareThreads", BareThreads);
  program("ExecProgram", Scene::Exec(file, ""));
  Register("FactsLibrary", FactsLibrary);
  program("FactsProgram", Scene::OnNodes("facts", file));
  if (bench::Installed("clush", "clustershell")) {
    program("Clush", "clush -S -f 64 -l root --hostfile " + file + " -o " +
                         pnl_proc::Escape(Scene::Login()) + " true");
  }
  if (bench::Installed("parallel-ssh", "pssh")) {
    program("ParallelSsh", "parallel-ssh -p 64 -l root -h " + file + " -x " +
                               pnl_proc::Escape(Scene::Login()) + " true");
  }
  if (bench::Installed("ansible", "ansible")) {
    program("AnsibleRaw", Ansible(file, "raw"));
    program("AnsibleCommand", Ansible(file, "command"));
    program("AnsibleFacts", Ansible(file, "setup", ""));
  }
}

// --- 300 nodes, some of them dead

/// A run of a program: what it took, and what it said on standard error.
struct Trial {
  double seconds = 0;
  long peak_kib = 0;
  std::ptrdiff_t descriptors = 0;
  string said = {};
};

std::ptrdiff_t OpenDescriptors(const string& pid) {
  std::error_code gone;
  const std::filesystem::directory_iterator open("/proc/" + pid + "/fd", gone);
  return gone ? 0 : std::distance(begin(open), end(open));
}

/// Looks at the program while it runs: getrusage(2) of a child counts what its parent needed, too.
Trial Try(const string& command) {
  using Clock = std::chrono::steady_clock;
  const string said = scene->dir / "said";
  const string line = "ulimit -n 1024; exec " + command + " >/dev/null 2>" + said + " </dev/null";
  const std::array<const char*, 4> words = {"sh", "-c", line.c_str(), nullptr};
  Trial trial;
  const auto begin = Clock::now();
  pid_t pid = -1;
  Must(posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char* const*>(words.data()),
                   environ) == 0,
       command);
  while (waitpid(pid, nullptr, WNOHANG) == 0) {
    trial.peak_kib = std::max(trial.peak_kib, bench::PeakKiB(std::to_string(pid)));
    trial.descriptors = std::max(trial.descriptors, OpenDescriptors(std::to_string(pid)));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  trial.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  trial.said = pnl_file::Read(said);
  return trial;
}

/// The same with nodes that do not answer and nodes that cannot be reached, and without them.
void PrintDead(const Nodes& alive, const string& forks) {
  const string options = " --timeout " + std::to_string(kTimeout) + " --forks " + forks;
  const Trial rest = Try(Scene::Exec(scene->FileOf(alive), options));
  Must(rest.said.ends_with(std::to_string(alive.size()) + " ok\n"), rest.said);
  const Trial all = Try(Scene::Exec(scene->FileOf(scene->all), options));
  Must(all.said.ends_with(
           str::Format("%zu ok, %zu unreachable\n", alive.size(), kAll - alive.size())),
       all.said);
  bench::PrintRatio(
      "20 of 300 dead, " + forks + " forks", "a time-out and the others",
      all.seconds / (kTimeout + rest.seconds),
      str::Format("at most 1.1; %.1f and %.1f s", all.seconds, kTimeout + rest.seconds));
  bench::PrintPeaks("their memory", "64 MiB", static_cast<double>(all.peak_kib), kMemoryMiB * 1024,
                    "at most 1");
  bench::PrintRatio("their descriptors", "ulimit -n 1024",
                    static_cast<double>(all.descriptors) / kDescriptors,
                    str::Format("at most 0.5; %td", all.descriptors));
}

void PrintAllDead() {
  Nodes alive;
  for (std::size_t i = 0; i < kAll; ++i) {
    const std::size_t place = i % kEach;
    if (place == 0) Shell(scene->lab + "/fault " + scene->all[i].name + " silence");
    if (place == kEach / 2) Shell(scene->lab + "/fault " + scene->all[i].name + " unplug");
    if (place != 0 && place != kEach / 2) alive.push_back(scene->all[i]);
  }
  PrintDead(alive, std::to_string(fleet::kForks));
  PrintDead(alive, std::to_string(kAll));
}

int Run(const std::vector<char*>& words) {
  const Scene here;
  scene = &here;
  RegisterAll();
  const auto clock = bench::Time::kClock;
  const int result =
      bench::MainInterleaved(words, {{"FanLibrary", "BareThreads", "at most 1.1", clock},
                                     {"ExecProgram", "BareThreads", "the whole program", clock},
                                     {"FactsLibrary", "BareThreads", "at most 1.3", clock},
                                     {"FactsProgram", "ExecProgram", "stored, too", clock},
                                     {"ParallelSsh", "ExecProgram", "64 at a time", clock},
                                     {"Clush", "ExecProgram", "64 at a time", clock},
                                     {"AnsibleRaw", "ExecProgram", "64 forks", clock},
                                     {"AnsibleCommand", "ExecProgram", "64 forks", clock},
                                     {"AnsibleFacts", "FactsProgram", "64 forks", clock}});
  PrintAllDead();
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  return bench::Program([&] { return Run({argv, argv + argc}); });
}
