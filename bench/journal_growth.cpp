// How the journal grows with the number of runs: times, sizes, memory; run by scripts/growth.
//
// Usage: journal_growth ADDRESS RUNS    e.g. journal_growth sqlite:/dev/shm/fleet.db 10000

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "fleet/journal.h"
#include "pnl/err.h"
#include "pnldb/db.h"

namespace {

using fleet::Journal;
using fleet::NodeRunState;
using fleet::RunState;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kNodes = 300;
constexpr std::int64_t kPage = 100;  // runs that lists show
constexpr const char* kPath = "/etc/motd";

/// Milliseconds.
double TimeOf(const std::function<void()>& work) {
  const auto begin = Clock::now();
  work();
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

/// The middle one of five.
double Median(const std::function<void()>& work) {
  std::vector<double> times(5);
  std::generate(times.begin(), times.end(), [&] { return TimeOf(work); });
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

std::string NodeName(std::size_t number) {
  return "web" + std::to_string(number);
}

/// The nodes of the run with this number: a file of some lines changes on each.
std::vector<fleet::RunNode> NodesOf(std::size_t run, const std::string& prefix) {
  const auto file = [](std::size_t version) {
    return fleet::PathState::File("Welcome to this server.\nVersion " + std::to_string(version) +
                                  "\nAsk the administrators before you change anything.\n");
  };
  const auto before = file(run);
  const auto after = file(run + 1);
  std::vector<fleet::RunNode> nodes;
  for (std::size_t i = 0; i < kNodes; ++i) {
    const std::string name = prefix + NodeName(i);
    char machine[33];
    std::snprintf(machine, sizeof(machine), "%032zx", std::hash<std::string>()(name));
    nodes.push_back({.name = name, .machine = machine, .login = "root@" + name});
    nodes.back().steps = {{.object = kPath, .before = before, .after = after}};
  }
  return nodes;
}

std::vector<fleet::NodeOutcome> All(const std::vector<fleet::RunNode>& nodes, NodeRunState state) {
  std::vector<fleet::NodeOutcome> outcomes;
  for (const fleet::RunNode& node : nodes) outcomes.push_back({node.name, state});
  return outcomes;
}

/// All that a run writes: most are done, every tenth is undone, a few owe nodes something.
void WriteRun(Journal& journal, std::size_t number) {
  constexpr std::size_t kOwing = 500;
  const bool undone = number % 10 == 3;
  const bool owes = number % kOwing == 77;
  const std::vector<fleet::RunNode> nodes = NodesOf(number, "");
  const fleet::RunHead run =
      journal.Begin({.command = "node write /etc/motd", .policy = "all-or-none"}, nodes);
  journal.Note(run, All(nodes, NodeRunState::kMaking));
  journal.Note(run, All(nodes, NodeRunState::kMade));
  const RunState decided = undone ? RunState::kUndoing : RunState::kCommitted;
  journal.Move(run, RunState::kMaking, decided);
  auto outcomes = All(nodes, undone ? NodeRunState::kUndone : NodeRunState::kDone);
  if (owes)
    outcomes[number % kNodes] = {nodes[number % kNodes].name, NodeRunState::kOwed, "timeout"};
  journal.Note(run, outcomes);
  const RunState end = undone ? RunState::kUndone : RunState::kDone;
  journal.Move(run, decided, owes ? RunState::kPartly : end);
}

/// A run whose panel died in the middle.
void LeaveUnfinished(Journal& journal, std::size_t number) {
  const auto nodes = NodesOf(number, "left" + std::to_string(number) + "-");
  const fleet::RunHead run = journal.Begin({.command = "node write", .policy = "each"}, nodes);
  journal.Note(run, All(nodes, NodeRunState::kMaking));
}

double MiB(double bytes) {
  return bytes / (1 << 20);
}

/// Of the database on its disk, MiB.
double SizeOf(const std::string& address) {
  if (const std::string scheme = "sqlite:"; address.starts_with(scheme)) {
    double bytes = 0;
    for (const char* end : {"", "-wal"}) {
      struct stat file = {};
      if (stat((address.substr(scheme.size()) + end).c_str(), &file) == 0)
        bytes += static_cast<double>(file.st_size);
    }
    return MiB(bytes);
  }
  const auto size = pnl_db::Cache::Open(address)->Select(
      "select pg_total_relation_size('runs') + pg_total_relation_size('run_nodes') + "
      "pg_total_relation_size('run_steps') as size");
  size->Next();
  return MiB(static_cast<double>(size->AsInt64("size")));
}

/// The most memory that this process ever had, MiB.
double Memory() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    double kib = 0;
    if (word == "VmHWM:" && status >> kib) return kib / 1024;
  }
  return 0;
}

/// As "run list" does.
void List(const Journal& journal, std::int64_t most) {
  std::vector<std::int64_t> ids;
  for (const fleet::RunHead& run : journal.Runs(most)) ids.push_back(run.id);
  static_cast<void>(journal.NodeCounts(ids));
}

void Tell(std::size_t runs, const std::string& address, const Journal& journal, double write) {
  const std::int64_t id = journal.Runs(1).front().id - 7;
  const std::string node = NodeName(kNodes / 2);
  const std::vector<double> times = {
      write,
      Median([&] { static_cast<void>(journal.Debts()); }),
      Median([&] { static_cast<void>(journal.Unfinished()); }),
      Median([&] { List(journal, kPage); }),
      Median([&] { List(journal, Journal::kAll); }),
      Median([&] { static_cast<void>(journal.Find(id)), journal.NodeCounts({id}); }),
      Median([&] { static_cast<void>(journal.History(node, "", kPage)); }),
      Median([&] { static_cast<void>(journal.History(node, kPath, kPage)); }),
      Median([&] { static_cast<void>(journal.LastChanges()); }),
  };
  std::printf("%7zu", runs);
  for (const double time : times) std::printf(" %9.1f", time);
  std::printf(" %9.0f %9.0f\n", SizeOf(address), Memory());
  std::fflush(stdout);
}

/// Prunes the older half of the runs while another panel makes runs of its own.
void TellPrune(const std::string& address, Journal& journal, std::size_t runs) {
  const std::vector<fleet::RunHead> heads = journal.Runs();
  const std::time_t middle = heads[heads.size() / 2].begun;
  std::atomic<bool> over = false;
  double longest = 0;
  std::size_t number = runs;
  std::thread other([&] {
    Journal beside(pnl_db::Cache::Open(address));
    while (!over) longest = std::max(longest, TimeOf([&] { WriteRun(beside, ++number); }));
  });
  std::int64_t pruned = 0;
  const double time = TimeOf([&] { pruned = journal.Prune(middle); });
  over = true;
  other.join();
  std::printf("prune of %lld runs: %.1f s; the longest run beside it: %.0f ms; %.0f MiB then\n",
              static_cast<long long>(pruned), time / 1000, longest, SizeOf(address));
  const std::size_t more = runs / 10;
  for (std::size_t i = 0; i < more; ++i) WriteRun(journal, ++number);
  std::printf("after %zu more runs: %.0f MiB\n", more, SizeOf(address));
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 3) {
    std::fprintf(stderr, "usage: journal_growth ADDRESS RUNS\n");
    return 1;
  }
  const std::string address = argv[1];
  const std::size_t most = std::stoul(argv[2]);
  Journal journal(pnl_db::Cache::Open(address));
  std::printf("%7s %9s %9s %9s %9s %9s %9s %9s %9s %9s %9s %9s\n", "runs", "write", "debts",
              "unfinish", "list", "list-all", "show", "history", "hist-path", "changes", "size",
              "memory");
  std::size_t written = 0;
  for (std::size_t stage = most / 100; stage <= most && stage != 0; stage *= 10) {
    LeaveUnfinished(journal, ++written);
    while (written < stage) WriteRun(journal, ++written);
    Tell(stage, address, journal, Median([&] { WriteRun(journal, ++written); }));
  }
  TellPrune(address, journal, written);
  return 0;
} catch (const pnl_err::Error& error) {
  std::fprintf(stderr, "journal_growth: %s %s\n", error.what(), error.param("errmsg").c_str());
  return 1;
}
