// One key in one file of each of 60 nodes, as a run: planned, in the journal, made, verified, committed,
// cleaned up. Compared with the same safe replacement without books, on the same fan, and with a tool
// that people use for this. And a command on 10 of these nodes as a run, beside a bare session for each.
//
// It needs a lab with 60 nodes: scripts/bench runs it there. Environment: LAB_KEY, LAB_KNOWN_HOSTS,
// BENCH_NODES, as lab/run and scripts/bench give them.

#include <sstream>
#include <thread>

#include "bare_ssh.h"
#include "fleet/config_key.h"
#include "fleet/edits.h"
#include "fleet/fan.h"
#include "fleet/run.h"
#include "lab.h"
#include "pnl/file.h"
#include "pnl/host.h"
#include "pnl/proc.h"

namespace {

using bench::Environment;
using bench::Must;
using std::string;

constexpr const char* kFile = "/etc/bench.conf";

class Scene {
 public:
  Scene() : journal(pnl_db::Cache::Open("sqlite:" + (dir / "fleet.db"))) {
    std::istringstream list(Environment("BENCH_NODES"));
    for (string address; list >> address;) {
      targets.push_back(
          {address, pnl_rpc::SshOptions{.host = address,
                                        .key_file = Environment("LAB_KEY"),
                                        .known_hosts = Environment("LAB_KNOWN_HOSTS")}});
      pnl_file::Write(dir / "nodes", addresses += address + "\n");
    }
    Visit([](pnl_host::Host& host) { host.Replace(kFile, "name = x\nport = 0\nlast = y\n"); });
    std::filesystem::current_path(dir / "");
  }
  ~Scene() { std::filesystem::current_path("/"); }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  void Visit(const std::function<void(pnl_host::Host& host)>& work) const {
    fleet::Fan fan;
    const auto visit = [&](const fleet::Turn& turn) {
      pnl_host::Host host(turn.LogIn(*targets[turn.Index()].login));
      work(host);
    };
    for (const auto& failure : fan.Visit(targets.size(), visit))
      Must(!failure, failure ? failure->what() : "");
  }
  /// Another one each time.
  string NewPort() { return std::to_string(++port_); }

  bench::Dir dir;
  fleet::Journal journal;
  std::vector<fleet::RunTarget> targets;
  string addresses;

 private:
  int port_ = 0;
};

Scene* scene = nullptr;

void AsRun(benchmark::State& state) {
  for (auto _ : state) {
    fleet::Run run(&scene->journal, scene->targets, {.command = "bench"});
    run.Plan({fleet::SetKeyEdit(kFile, "port", scene->NewPort())});
    Must(run.Make().Good(), "the run");
  }
}

void WithoutBooks(benchmark::State& state) {
  for (auto _ : state) {
    const string port = scene->NewPort();
    scene->Visit([&](pnl_host::Host& host) {
      const string before = host.Read(kFile).value();
      host.Replace(kFile, fleet::SetConfigKey(before, "port", port, {}), {.before = before});
    });
  }
}

std::vector<fleet::RunTarget> Few() {
  return {scene->targets.begin(), scene->targets.begin() + 10};
}

void CommandAsRun(benchmark::State& state) {
  const std::vector<fleet::RunTarget> few = Few();
  const fleet::Edit command{.look = [](fleet::Looks&) {},
                            .make = [](fleet::Draft& draft) { draft.Run("true", "true", "true"); }};
  for (auto _ : state) {
    fleet::Run run(&scene->journal, few, {.command = "bench"});
    run.Plan({command});
    Must(run.Make().Good(), "the run of a command");
  }
}

void BareCommand(benchmark::State& state) {
  const std::vector<fleet::RunTarget> few = Few();
  for (auto _ : state) {
    std::vector<std::jthread> threads;
    for (const fleet::RunTarget& target : few)
      threads.emplace_back(
          [&] { Must(bench::BareRun(bench::BareConnect(target.name), "true") == 0, "true"); });
  }
}

void Ansible(benchmark::State& state) {
  const string login =
      "-i " + Environment("LAB_KEY") + " -o UserKnownHostsFile=" + Environment("LAB_KNOWN_HOSTS");
  for (auto _ : state) {
    bench::Shell("ANSIBLE_SSH_CONTROL_PATH='" + (scene->dir / "share-") +
                 "%%C' ansible all -f 64 -u root -i " + (scene->dir / "nodes") +
                 " --ssh-common-args=" + pnl_proc::Escape(login) +
                 " -e ansible_python_interpreter=/usr/bin/python3 -m lineinfile -a " +
                 pnl_proc::Escape(string("path=") + kFile +
                                  " regexp='^port' line='port = " + scene->NewPort() + "'") +
                 " >/dev/null 2>&1 </dev/null");
    state.PauseTiming();
    bench::Shell("for s in " + (scene->dir / "share-") +
                 "*; do [ ! -S $s ] || ssh -q -S $s -O exit x; done");
    state.ResumeTiming();
  }
}

int Run(const std::vector<char*>& words) {
  Scene here;
  scene = &here;
  constexpr int kRepetitions = 7;
  bench::RegisterWaiting("AsRun", AsRun, kRepetitions);
  bench::RegisterWaiting("WithoutBooks", WithoutBooks, kRepetitions);
  bench::RegisterWaiting("CommandAsRun", CommandAsRun, kRepetitions);
  bench::RegisterWaiting("BareCommand", BareCommand, kRepetitions);
  if (bench::Installed("ansible", "ansible")) bench::RegisterWaiting("Ansible", Ansible, 3);
  const auto clock = bench::Time::kClock;
  return bench::MainInterleaved(words, {{"AsRun", "WithoutBooks", "at most 1.3", clock},
                                        {"CommandAsRun", "BareCommand", "at most 3", clock},
                                        {"AsRun", "Ansible", "at most 0.25", clock}});
}

}  // namespace

int main(int argc, char** argv) {
  return bench::Program([&] { return Run({argv, argv + argc}); });
}
