// The rotation of a key over many nodes as a run, compared with one bare session a node and with the
// distribution by ssh(1). That one is compared with the same ssh command lines without the library, with
// other usual tools, and with other settings of the ssh client. With 300 nodes, only the run and the bare
// sessions. It needs a lab with nodes: scripts/bench runs it there.
//
// Environment: BENCH_NODES (20 or 300 addresses), LAB, LAB_KEY, LAB_KNOWN_HOSTS, as lab/run and lab/node
// give them. It writes root's ssh configuration, which is a lab's own.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <sstream>
#include <thread>

#include "bare_ssh.h"
#include "brefir/sshkey_generate.h"
#include "fleet/rotation.h"
#include "lab.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "pnl/proc.h"

namespace {

using bench::Environment;
using bench::Must;
using bench::Shell;
using std::string;
using Nodes = std::vector<string>;

constexpr std::size_t kNodes = 20;
constexpr std::size_t kManyNodes = 300;
const string kKeys = "/root/.ssh/authorized_keys";
const string kClientConfig = "/root/.ssh/config";

// --- Command lines without the library

/// A shell's command line, started in the cheapest way that threads can use. In a session of its
/// own, as the library has it: the scheduler shares the processor out by session (sched(7), "The
/// autogroup feature"), so that on a busy machine twenty clients in one session would starve.
class Command {
 public:
  enum class Stream { kInput, kOutput };

  Command(const string& command, Stream stream) : command_(command) {
    std::array<int, 2> ends;
    Must(pipe2(ends.data(), O_CLOEXEC) == 0, "pipe");
    const bool input = stream == Stream::kInput;
    Start(ends[input ? 0 : 1], input ? STDIN_FILENO : STDOUT_FILENO);
    close(ends[input ? 0 : 1]);
    stream_ = fdopen(ends[input ? 1 : 0], input ? "w" : "r");
    Must(stream_ != nullptr, command);
  }
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  FILE* Pipe() const { return stream_; }

  /// Closes the pipe and waits; whether the command was successful. To be called once.
  bool End() {
    Must(std::fclose(stream_) == 0, command_);
    int status = 0;
    Must(waitpid(pid_, &status, 0) == pid_, command_);
    return status == 0;
  }

 private:
  void Start(int end, int target) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, end, target);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    const std::array<const char*, 4> words = {"sh", "-c", command_.c_str(), nullptr};
    Must(posix_spawn(&pid_, "/bin/sh", &actions, &attributes,
                     const_cast<char* const*>(words.data()), environ) == 0,
         command_);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }

  string command_;
  pid_t pid_ = -1;
  FILE* stream_ = nullptr;
};

/// What it prints; nothing when it fails and may do so.
string Output(const string& line, bool may_fail = false) {
  Command command(line, Command::Stream::kOutput);
  string output;
  std::array<char, 4096> block;
  while (const std::size_t n = std::fread(block.data(), 1, block.size(), command.Pipe()))
    output.append(block.data(), n);
  const bool good = command.End();
  Must(good || may_fail, line);
  return good ? output : "";
}

void Feed(const string& line, const string& input) {
  Command command(line, Command::Stream::kInput);
  Must(std::fwrite(input.data(), 1, input.size(), command.Pipe()) == input.size(), line);
  Must(command.End(), line);
}

// --- What everything works on

/// The nodes, a new pair for them, and the local file that a node must not have.
class Scene {
 public:
  Scene() {
    Must(Environment("LAB") == "1", "this is a lab");
    std::istringstream words(Environment("BENCH_NODES"));
    for (string node; words >> node;) nodes.push_back(node);
    Must(nodes.size() == kNodes || nodes.size() == kManyNodes, "20 or 300 nodes");
    Shell("ssh-keygen -q -t rsa -N '' -f " + new_key);
    new_text = pnl_file::Read(new_key + ".pub");
    pnl_file::Write(probe, probe_text);
  }

  static string Ssh(const string& node) {
    return "ssh -i " + Environment("LAB_KEY") + " -o StrictHostKeyChecking=no" +
           " -o UserKnownHostsFile=" + Environment("LAB_KNOWN_HOSTS") + " root@" + node + " ";
  }

  /// On all nodes at once.
  void OnAll(const string& commands) const {
    for (std::size_t begin = 0; begin < nodes.size(); begin += kNodes) {
      std::vector<std::jthread> threads;
      for (std::size_t i = begin; i < std::min(begin + kNodes, nodes.size()); ++i)
        threads.emplace_back([&, i] { Output(Ssh(nodes[i]) + pnl_proc::Escape(commands)); });
    }
  }

  /// Times `work`; then every node must have the new key, and `undo` takes it away again. No
  /// connection is left for the next one.
  void Time(benchmark::State& state, const std::function<void()>& work,
            const std::function<void()>& undo) const {
    const string line = pnl_proc::Escape(new_text.substr(0, new_text.find('\n')));
    for (auto _ : state) {
      work();
      state.PauseTiming();
      OnAll("grep -qxF " + line + " " + kKeys);
      undo();
      Shell("for s in " + shared + "*; do [ ! -S $s ] || ssh -q -S $s -O exit x; done");
      state.ResumeTiming();
    }
  }

  bench::Dir dir;
  Nodes nodes;
  string new_key = dir / "key";
  string new_text;
  string probe = dir / "probe";
  string probe_text = "only here";
  string shared = dir / "share-";  ///< how control sockets begin
};

const Scene* scene = nullptr;

void PutBack() {
  scene->OnAll("mv " + kKeys + ".old " + kKeys);
}

// --- As a run

/// A rotation from the books to the pair in place. Afterwards the nodes and the pair are as before.
void AsRun(benchmark::State& state) {
  const string key = scene->dir / "panel";
  const string put_back = "cp " + kKeys + ".kept " + kKeys;
  Shell("cp " + Environment("LAB_KEY") + " " + key + "; cp " + Environment("LAB_KEY") + ".pub " +
        key + ".pub");
  scene->OnAll("cp " + kKeys + " " + kKeys + ".kept");
  fleet::Journal journal(pnl_db::Cache::Open("sqlite:" + (scene->dir / "fleet.db")));
  std::vector<fleet::RunTarget> targets;
  for (const string& node : scene->nodes)
    targets.push_back(
        {node, pnl_rpc::SshOptions{
                   .host = node, .key_file = key, .known_hosts = Environment("LAB_KNOWN_HOSTS")}});
  for (auto _ : state) {
    const fleet::KeyChange change = fleet::MakeNextPair(
        {.private_key = key, .public_key = key + ".pub"}, fleet::KeyType::kEd25519);
    fleet::Run run(&journal, targets, {.command = "bench", .key = change});
    run.Plan({fleet::NewKeyEdit("root", change)});
    Must(run.Make().Good(), "the rotation");
    state.PauseTiming();
    scene->OnAll(put_back);
    Shell("cp " + Environment("LAB_KEY") + " " + key);
    state.ResumeTiming();
  }
  scene->OnAll("rm " + kKeys + ".kept");
}

/// Nobody can do with less than one login a node.
void BareSessions(benchmark::State& state) {
  for (auto _ : state) {
    fleet::Fan fan;
    const auto visit = [](const fleet::Turn& turn) {
      const string& node = scene->nodes[turn.Index()];
      Must(bench::BareRun(bench::BareConnect(node), "true") == 0, "true");
    };
    for (const auto& failure : fan.Visit(scene->nodes.size(), visit))
      Must(!failure, failure ? failure->what() : "");
  }
}

// --- The library

void Library(benchmark::State& state) {
  const string key = Environment("LAB_KEY");
  const auto distribute = [&] {
    new ssh_gen::SshKeyGenerator::ApplySshKeysToRemoteNodesJob(
        scene->nodes, key, key + ".pub", scene->new_key, "", "", scene->new_text,
        Environment("LAB_KNOWN_HOSTS"), false, "");
  };
  scene->Time(state, distribute, [] { pnl_job::Rollback(); });
}

/// Under settings of the ssh client, which no command line contradicts.
void WithSettings(benchmark::State& state, const string& settings) {
  pnl_file::Write(kClientConfig, settings);
  Library(state);
  pnl_file::RemoveFile(kClientConfig);
}

// --- The same command lines

bool IsLocal(const string& node) {
  return Output(Scene::Ssh(node) + "cat " + scene->probe, true) == scene->probe_text;
}

void Steps(const string& node) {
  const string ssh = Scene::Ssh(node);
  const string keys = Output(ssh + "'cat " + kKeys + "'");
  Feed(ssh + " 'cat > " + kKeys + ".new'", keys + scene->new_text + "\n");
  Output(ssh + "' cp " + kKeys + " " + kKeys + ".old'");
  Output(ssh + "' mv " + kKeys + ".new " + kKeys + "'");
}

void BareThreads(benchmark::State& state) {
  const auto distribute = [] {
    std::vector<std::thread> threads;
    for (const string& node : scene->nodes) {
      Must(!IsLocal(node), "a node that is not this host");
      threads.emplace_back([&node] { Steps(node); });
    }
    for (std::thread& thread : threads) thread.join();
  };
  scene->Time(state, distribute, PutBack);
}

void OneAfterAnother(benchmark::State& state) {
  const auto distribute = [] {
    for (const string& node : scene->nodes) {
      Must(!IsLocal(node), "a node that is not this host");
      Steps(node);
    }
  };
  scene->Time(state, distribute, PutBack);
}

// --- What else one would take

/// One login a node: no way back from half of it, and a file that is torn when the login is.
void HandLoop(benchmark::State& state) {
  const auto distribute = [] {
    for (const string& node : scene->nodes)
      Feed(Scene::Ssh(node) + "'cp " + kKeys + " " + kKeys + ".old && cat >> " + kKeys + "'",
           scene->new_text);
  };
  scene->Time(state, distribute, PutBack);
}

/// With the interpreter's path given, which saves it a look at each node.
void Ansible(benchmark::State& state) {
  string all;
  for (const string& node : scene->nodes) all += node + ",";
  const string arguments = R"({"path": ")" + kKeys + R"(", "backup": true, "line": ")" +
                           scene->new_text.substr(0, scene->new_text.find('\n')) + "\"}";
  const string command = "ANSIBLE_SSH_CONTROL_PATH='" + scene->shared + "%%C' ansible all -f " +
                         std::to_string(kNodes) + " -u root -i " + all + " --private-key " +
                         Environment("LAB_KEY") +
                         " -e ansible_python_interpreter=/usr/bin/python3 -m lineinfile -a " +
                         pnl_proc::Escape(arguments);
  scene->Time(
      state, [&] { Output(command); }, [] { scene->OnAll("mv " + kKeys + ".*~ " + kKeys); });
}

// --- All

void Register(const string& name, const std::function<void(benchmark::State&)>& function) {
  constexpr int kRepetitions = 5;
  bench::RegisterWaiting(name, function, kRepetitions);
}

void RegisterAll() {
  Register("AsRun", AsRun);
  Register("BareSessions", BareSessions);
  if (scene->nodes.size() == kManyNodes) return;
  Register("Library", Library);
  Register("BareThreads", BareThreads);
  Register("OneAfterAnother", OneAfterAnother);
  Register("HandLoop", HandLoop);
  if (bench::Installed("ansible", "ansible")) Register("Ansible", Ansible);
  const string sharing =
      "ControlMaster auto\nControlPersist 30\nControlPath " + scene->shared + "%C\n";
  const string exchange = "KexAlgorithms ^curve25519-sha256\n";
  const struct {
    const char* name;
    string settings;
  } clients[] = {
      {"Sharing", sharing},
      {"Curve25519", exchange},
      {"SharingCurve25519", sharing + exchange},
  };
  for (const auto& client : clients) {
    Register(client.name, [settings = client.settings](benchmark::State& state) {
      WithSettings(state, settings);
    });
  }
}

int Run(const std::vector<char*>& words) {
  // As the library's commands have it: no input but an empty one.
  Must(std::freopen("/dev/null", "r", stdin) != nullptr, "/dev/null");
  const Scene here;
  scene = &here;
  RegisterAll();
  const auto clock = bench::Time::kClock;
  return bench::MainInterleaved(words,
                                {{"AsRun", "BareSessions", "at most 2.5", clock},
                                 {"Library", "AsRun", "by ssh(1)", clock},
                                 {"Curve25519", "AsRun", "by ssh(1), the faster exchange", clock},
                                 {"Library", "BareThreads", "at most 1.15", clock},
                                 {"OneAfterAnother", "Library", "one ssh after another", clock},
                                 {"HandLoop", "Library", "one login a node, no way back", clock},
                                 {"Ansible", "Library", "20 forks", clock},
                                 {"Sharing", "Library", "setting", clock},
                                 {"Curve25519", "Library", "setting", clock},
                                 {"SharingCurve25519", "Library", "settings", clock}});
}

}  // namespace

int main(int argc, char** argv) {
  return bench::Program([&] { return Run({argv, argv + argc}); });
}
