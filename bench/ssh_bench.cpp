// Work on a node beside a bare libssh loop over the same commands and beside the usual programs,
// all in one run on one node. It needs a lab with a node in it: scripts/bench runs it there.
//
// Environment: BENCH_NODES (one address), LAB_KEY, LAB_KNOWN_HOSTS, as lab/run and lab/node give
// them.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "bare_ssh.h"
#include "brefir/ssh_utils.h"
#include "lab.h"
#include "pnl/proc.h"

namespace {

namespace file = ssh_utils::file;
using bench::BareConnect;
using bench::BareDrain;
using bench::BareRun;
using bench::BareStart;
using bench::Channel;
using bench::Dir;
using bench::Environment;
using bench::Must;
using bench::Session;
using bench::Shell;
using std::string;

constexpr int kBulkMiB = 512;
constexpr int kSmallMiB = 16;
constexpr int kTreeFiles = 5000;
// On a tmpfs: no disk and no overlay, which the small blocks of dd would pay for most.
const char* const kRemoteSmall = "/run/small";
const char* const kRemoteBulk = "/run/bulk";
const char* const kRemoteCopy = "/run/copy";
const char* const kRemoteTree = "/run/tree";

// --- The bare floor

string DdFrom(const string& path) {
  return "/bin/sh -c " + pnl_proc::Escape("dd if=" + path + " 2>/dev/null");
}
string DdTo(const string& path) {
  return "/bin/sh -c " + pnl_proc::Escape("dd of=" + path + " 2>/dev/null");
}

void BareCopyFrom(const Session& session, const string& remote, const string& local) {
  std::ofstream out(local, std::ios::binary | std::ios::trunc);
  const Channel channel = BareStart(session, DdFrom(remote));
  BareDrain(channel, [&](const char* data, std::streamsize n) { out.write(data, n); });
}

void BareCopyTo(const string& local, const Session& session, const string& remote) {
  std::ifstream in(local, std::ios::binary);
  const Channel channel = BareStart(session, DdTo(remote));
  std::array<char, 65536> block;
  while (in.read(block.data(), block.size()), in.gcount() > 0)
    ssh_channel_write(channel.get(), block.data(), static_cast<std::uint32_t>(in.gcount()));
  BareDrain(channel, [](const char*, std::streamsize) {});
}

// --- What everything works on

/// Files of random bytes here and on the node, both connections, and a connection shared by ssh
/// clients.
class Scene {
 public:
  Scene() : ssh(Options()), bare(BareConnect(Environment("BENCH_NODES"))) {
    const string known = "-o UserKnownHostsFile=" + Environment("LAB_KNOWN_HOSTS");
    rsh = "ssh -o BatchMode=yes -i " + Environment("LAB_KEY") + " " + known;
    scp = "scp -q -o BatchMode=yes -i " + Environment("LAB_KEY") + " " + known + " ";
    host = "root@" + Environment("BENCH_NODES");
    mux = "ssh -S " + (dir / "mux") + " " + host + " ";
    Shell(rsh + " -M -N -f -S " + (dir / "mux") + " " + host);
    Shell("head -c 1024 /dev/urandom >" + (dir / "small") + " && head -c " +
          std::to_string(kBulkMiB) + "M /dev/urandom >" + (dir / "bulk"));
    MakeTree();
    file::CopyTo(dir / "small", ssh, kRemoteSmall);
    file::CopyTo(dir / "bulk", ssh, kRemoteBulk);
  }
  ~Scene() { pnl_proc::Execute(mux + " -O exit").Result(); }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  static pnl_rpc::SshOptions Options() {
    return {.host = Environment("BENCH_NODES"),
            .key_file = Environment("LAB_KEY"),
            .known_hosts = Environment("LAB_KNOWN_HOSTS")};
  }

  Dir dir;
  pnl_rpc::SSH ssh;
  Session bare;
  string rsh;   ///< a fresh ssh client
  string scp;   ///< a fresh copy
  string mux;   ///< a client of the shared connection, with the host
  string host;  ///< "root@ADDRESS"

 private:
  void MakeTree() const {
    for (int i = 0; i < kTreeFiles; ++i) {
      const auto folder = std::filesystem::path(dir / "tree") / std::to_string(i / 100);
      std::filesystem::create_directories(folder);
      std::ofstream(folder / std::to_string(i)) << string(100 + i % 2000, 'x');
    }
  }
};

Scene* scene = nullptr;

// --- Small operations: exists, read 1 KiB, write 1 KiB, size

void SmallLibrary(benchmark::State& state) {
  const string content(1024, 'x');
  for (auto _ : state) {
    Must(file::Exists(scene->ssh, kRemoteSmall, "e"), "exists");
    Must(file::Read(scene->ssh, kRemoteSmall).size() == 1024, "read");
    file::Write(scene->ssh, kRemoteCopy, content);
    Must(file::Size(scene->ssh, kRemoteSmall) == 1024, "size");
  }
}

string TestCommand() {
  return string("test -e ") + kRemoteSmall;
}
string StatCommand() {
  return string("stat -c '%s' ") + kRemoteSmall;
}

void SmallBare(benchmark::State& state) {
  const string content(1024, 'x');
  for (auto _ : state) {
    Must(BareRun(scene->bare, TestCommand()) == 0, "exists");
    Must(BareRun(scene->bare, DdFrom(kRemoteSmall)) == 0, "read");
    Must(BareRun(scene->bare, DdTo(kRemoteCopy), content) == 0, "write");
    Must(BareRun(scene->bare, StatCommand()) == 0, "size");
  }
}

/// One client start for each command.
void SmallClient(benchmark::State& state, const string& client) {
  const auto quoted = [&](const string& command) {
    return client + " " + pnl_proc::Escape(command);
  };
  for (auto _ : state) {
    Shell(quoted(TestCommand()) + " </dev/null");
    Shell(quoted(DdFrom(kRemoteSmall)) + " </dev/null >/dev/null");
    Shell(quoted(DdTo(kRemoteCopy)) + " <" + (scene->dir / "small"));
    Shell(quoted(StatCommand()) + " </dev/null >/dev/null");
  }
}
void SmallMultiplexed(benchmark::State& state) {
  SmallClient(state, scene->mux);
}
void SmallFreshSsh(benchmark::State& state) {
  SmallClient(state, scene->rsh + " " + scene->host);
}

// --- Connecting

void ConnectLibrary(benchmark::State& state) {
  for (auto _ : state) const pnl_rpc::SSH ssh(Scene::Options());
}
void ConnectBare(benchmark::State& state) {
  for (auto _ : state) BareConnect(Environment("BENCH_NODES"));
}

// --- Copies, each onto nothing

/// Times `copy`, with the target removed before it, and looked at after it.
template <class Copy>
void ToNode(benchmark::State& state, const char* target, const Copy& copy) {
  for (auto _ : state) {
    state.PauseTiming();
    file::Remove(scene->ssh, target);
    state.ResumeTiming();
    copy();
  }
  Must(file::Exists(scene->ssh, target, "e"), "copied");
}

template <class Copy>
void FromNode(benchmark::State& state, const Copy& copy) {
  const string target = scene->dir / "back";
  for (auto _ : state) {
    state.PauseTiming();
    std::filesystem::remove(target);
    state.ResumeTiming();
    copy(target);
  }
  Must(std::filesystem::file_size(target) == std::uintmax_t{kBulkMiB} << 20, "copied whole");
}

string OnHost(const char* path) {
  return scene->host + ":" + path;
}
string Rsync(const string& from, const string& to) {
  return "rsync -W -e " + pnl_proc::Escape(scene->rsh) + " " + from + " " + to;
}

void CopyToLibrary(benchmark::State& state) {
  ToNode(state, kRemoteCopy, [] { file::CopyTo(scene->dir / "bulk", scene->ssh, kRemoteCopy); });
}
void CopyToBare(benchmark::State& state) {
  ToNode(state, kRemoteCopy, [] { BareCopyTo(scene->dir / "bulk", scene->bare, kRemoteCopy); });
}
/// What the node's dd takes by itself, in its blocks of 512 bytes: no copy through it is faster.
void DdOnNode(benchmark::State& state) {
  const string feed = string("head -c ") + std::to_string(kBulkMiB) + "M /dev/zero | ";
  ToNode(state, kRemoteCopy,
         [&] { Must(BareRun(scene->bare, feed + DdTo(kRemoteCopy)) == 0, "dd"); });
}
void CopyToScp(benchmark::State& state) {
  ToNode(state, kRemoteCopy,
         [] { Shell(scene->scp + (scene->dir / "bulk") + " " + OnHost(kRemoteCopy)); });
}
void CopyToScpGcm(benchmark::State& state) {
  ToNode(state, kRemoteCopy, [] {
    Shell(scene->scp + "-c aes128-gcm@openssh.com " + (scene->dir / "bulk") + " " +
          OnHost(kRemoteCopy));
  });
}
/// The whole program, which replaces the file: login, look, temporary, sync, rename.
void PutProgram(benchmark::State& state) {
  ToNode(state, kRemoteCopy, [&] {
    Shell(bench::Brefirctl() + " node put -q --node " + Environment("BENCH_NODES") + " --key " +
          Environment("LAB_KEY") + " --known-hosts " + Environment("LAB_KNOWN_HOSTS") + " " +
          (scene->dir / "bulk") + " " + kRemoteCopy + " >/dev/null");
  });
}
void CopyToRsync(benchmark::State& state) {
  ToNode(state, kRemoteCopy, [] { Shell(Rsync(scene->dir / "bulk", OnHost(kRemoteCopy))); });
}
void CopyFromLibrary(benchmark::State& state) {
  FromNode(state, [](const string& to) { file::CopyFrom(scene->ssh, kRemoteBulk, to); });
}
void CopyFromBare(benchmark::State& state) {
  FromNode(state, [](const string& to) { BareCopyFrom(scene->bare, kRemoteBulk, to); });
}
void CopyFromScp(benchmark::State& state) {
  FromNode(state, [](const string& to) { Shell(scene->scp + OnHost(kRemoteBulk) + " " + to); });
}
void CopyFromRsync(benchmark::State& state) {
  FromNode(state, [](const string& to) { Shell(Rsync(OnHost(kRemoteBulk), to)); });
}

void TreeLibrary(benchmark::State& state) {
  ToNode(state, kRemoteTree,
         [] { ssh_utils::CopyViaTar("tree", scene->dir / "", scene->ssh, "/run", ""); });
}
void TreeBare(benchmark::State& state) {
  ToNode(state, kRemoteTree, [] {
    const Channel channel = BareStart(scene->bare, "tar xpf - -C /run");
    FILE* tar = popen(("tar cpf - -C " + (scene->dir / "") + " tree").c_str(), "r");
    Must(tar != nullptr, "tar");
    std::array<char, 65536> block;
    while (const std::size_t n = fread(block.data(), 1, block.size(), tar))
      ssh_channel_write(channel.get(), block.data(), static_cast<std::uint32_t>(n));
    Must(pclose(tar) == 0, "tar");
    Must(BareDrain(channel, [](const char*, std::streamsize) {}) == 0, "tar on the node");
  });
}
void TreeTarSsh(benchmark::State& state) {
  ToNode(state, kRemoteTree, [] {
    Shell("tar cpf - -C " + (scene->dir / "") + " tree | " + scene->rsh + " " + scene->host +
          " tar xpf - -C /run");
  });
}
void TreeScp(benchmark::State& state) {
  ToNode(state, kRemoteTree,
         [] { Shell(scene->scp + "-r " + (scene->dir / "tree") + " " + OnHost("/run/")); });
}

// --- Memory

int PrintPeak(const string& mib) {
  const Dir dir;
  Shell("head -c " + mib + "M /dev/zero >" + (dir / "sent"));
  pnl_rpc::SSH ssh(Scene::Options());
  file::CopyTo(dir / "sent", ssh, kRemoteCopy);
  file::CopyFrom(ssh, kRemoteCopy, dir / "back");
  std::cout << bench::PeakKiB("self") << "\n";
  return 0;
}

/// The peak of copying so much to the node and back, in a process of its own.
long PeakOf(int mib) {
  const string self = std::filesystem::read_symlink("/proc/self/exe");
  FILE* pipe = popen((self + " --peak " + std::to_string(mib)).c_str(), "r");
  long peak = 0;
  Must(pipe != nullptr && fscanf(pipe, "%ld", &peak) == 1, "peak");
  pclose(pipe);
  return peak;
}

void PrintPeaks() {
  const auto small = static_cast<double>(PeakOf(kSmallMiB));
  const auto bulk = static_cast<double>(PeakOf(kBulkMiB));
  bench::PrintPeaks("peak memory, 512 MiB copied", "16 MiB copied", bulk, small, "at most 1.05");
}

struct Subject {
  const char* name;
  void (*function)(benchmark::State&);
  int iterations;
};

void Register() {
  constexpr int kRepetitions = 5;
  for (const Subject& subject :
       std::initializer_list<Subject>{{"SmallLibrary", SmallLibrary, 60},
                                      {"SmallBare", SmallBare, 60},
                                      {"SmallMultiplexed", SmallMultiplexed, 8},
                                      {"SmallFreshSsh", SmallFreshSsh, 2},
                                      {"ConnectLibrary", ConnectLibrary, 10},
                                      {"ConnectBare", ConnectBare, 10},
                                      {"CopyToLibrary", CopyToLibrary, 1},
                                      {"CopyToBare", CopyToBare, 1},
                                      {"DdOnNode", DdOnNode, 1},
                                      {"CopyToScp", CopyToScp, 1},
                                      {"CopyToScpGcm", CopyToScpGcm, 1},
                                      {"PutProgram", PutProgram, 1},
                                      {"CopyToRsync", CopyToRsync, 1},
                                      {"CopyFromLibrary", CopyFromLibrary, 1},
                                      {"CopyFromBare", CopyFromBare, 1},
                                      {"CopyFromScp", CopyFromScp, 1},
                                      {"CopyFromRsync", CopyFromRsync, 1},
                                      {"TreeLibrary", TreeLibrary, 3},
                                      {"TreeBare", TreeBare, 3},
                                      {"TreeTarSsh", TreeTarSsh, 1},
                                      {"TreeScp", TreeScp, 1}}) {
    benchmark::RegisterBenchmark(subject.name, subject.function)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(subject.iterations)
        ->Repetitions(kRepetitions)
        ->ReportAggregatesOnly()
        ->UseRealTime();
  }
}

/// What is compared closely runs by itself: what others leave behind (pages to be freed, caches)
/// costs the next one time.
const std::array<const char*, 3> kGroups = {"^(Put|CopyToScp)", "^Tree(Library|Bare)",
                                            "-^(Put|TreeBare)"};

int Run(const std::vector<char*>& words) {
  Scene here;
  scene = &here;
  Register();
  const auto clock = bench::Time::kClock;
  const std::vector<bench::Ratio> ratios = {
      {"SmallLibrary", "SmallBare", "at most 1.1", clock},
      {"SmallMultiplexed", "SmallLibrary", "at least 2", clock},
      {"SmallFreshSsh", "SmallLibrary", "at least 10", clock},
      {"ConnectLibrary", "ConnectBare", "at most 1.2", clock},
      {"CopyToLibrary", "CopyToBare", "at most 1.05", clock},
      {"CopyToLibrary", "CopyToScp", "at most 1.15", clock},
      {"DdOnNode", "CopyToScp", "what dd alone takes", clock},
      {"CopyToLibrary", "CopyToRsync", "below 1", clock},
      {"CopyFromLibrary", "CopyFromBare", "at most 1.05", clock},
      {"CopyFromLibrary", "CopyFromScp", "at most 1.15", clock},
      {"CopyFromLibrary", "CopyFromRsync", "below 1", clock},
      {"PutProgram", "CopyToScp", "at most 0.6", clock},
      {"PutProgram", "CopyToScpGcm", "at most 0.85", clock},
      {"TreeLibrary", "TreeBare", "at most 1", clock},
      {"TreeLibrary", "TreeTarSsh", "at most 1", clock},
      {"TreeScp", "TreeLibrary", "at least 4", clock}};
  const bool chosen = std::any_of(words.begin(), words.end(), [](const char* word) {
    return string(word).starts_with("--benchmark_filter");
  });
  int result = chosen ? bench::MainInterleaved(words, ratios) : 0;
  for (const char* group : kGroups) {
    if (chosen || result != 0) break;
    std::vector<char*> of_group = words;
    string filter = string("--benchmark_filter=") + group;
    of_group.push_back(filter.data());
    result = bench::MainInterleaved(of_group, ratios);
  }
  PrintPeaks();
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  return bench::Program([&] {
    if (argc == 3 && std::strcmp(argv[1], "--peak") == 0) return PrintPeak(argv[2]);
    return Run({argv, argv + argc});
  });
}
