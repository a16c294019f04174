// Reading an inventory of 100,000 nodes, compared with a bare pass over the lines of its file.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "fleet/inventory.h"
#include "fleet/node_range.h"
#include "pnl/file.h"
#include "pnl/str.h"
#include "prefix.h"
#include "ratio.h"

namespace {

constexpr int kGroups = 50;
constexpr int kOfGroup = static_cast<int>(fleet::kMaxNodes) / kGroups;
constexpr const char* kLines = "lines";
constexpr const char* kRanges = "ranges";

/// The same nodes twice: a line for each, and a line for each group.
void MakeFiles() {
  std::string lines, ranges;
  for (int g = 0; g < kGroups; ++g) {
    const std::string head = str::Format("[group%d] user=admin role=r%d\n", g, g);
    lines += head;
    ranges += head + str::Format("node%02d-[0-%d] host=10.%d.[0-%d].[0-249]\n", g, kOfGroup - 1, g,
                                 kOfGroup / 250 - 1);
    for (int n = 0; n < kOfGroup; ++n)
      lines += str::Format("node%02d-%d host=10.%d.%d.%d\n", g, n, g, n / 250, n % 250);
  }
  pnl_file::Write(kLines, lines);
  pnl_file::Write(kRanges, ranges);
}

void Load(benchmark::State& state, const char* path) {
  for (auto _ : state)
    if (fleet::Inventory::Load(path).Nodes().size() != fleet::kMaxNodes) std::abort();
}
void InventoryLines(benchmark::State& state) {
  Load(state, kLines);
}
void InventoryRanges(benchmark::State& state) {
  Load(state, kRanges);
}

/// read(2), and a look for each line end.
void BareLines(benchmark::State& state) {
  std::string block(1 << 16, '\0');
  for (auto _ : state) {
    const int fd = open(kLines, O_RDONLY | O_CLOEXEC);
    std::ptrdiff_t lines = 0;
    for (ssize_t n = 0; (n = read(fd, block.data(), block.size())) > 0;)
      lines += std::count(block.begin(), block.begin() + n, '\n');
    if (close(fd) != 0 || lines != kGroups + static_cast<std::ptrdiff_t>(fleet::kMaxNodes))
      std::abort();
  }
}

/// What the limit of the whole is measured by.
void OneSecond(benchmark::State& state) {
  for (auto _ : state) state.SetIterationTime(1);
}

}  // namespace

int main(int argc, char** argv) {
  return bench::Program([&] {
    const bench::Prefix prefix;
    MakeFiles();
    for (const auto& [name, function] :
         std::initializer_list<std::pair<const char*, void (*)(benchmark::State&)>>{
             {"InventoryLines", InventoryLines},
             {"InventoryRanges", InventoryRanges},
             {"BareLines", BareLines}}) {
      benchmark::RegisterBenchmark(name, function)
          ->Unit(benchmark::kMillisecond)
          ->Repetitions(7)
          ->ReportAggregatesOnly();
    }
    benchmark::RegisterBenchmark("OneSecond", OneSecond)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1)
        ->UseManualTime();
    const auto clock = bench::Time::kClock;
    return bench::MainInterleaved({argv, argv + argc},
                                  {{"InventoryLines", "OneSecond", "below 1", clock},
                                   {"InventoryRanges", "OneSecond", "below 1", clock},
                                   {"InventoryLines", "BareLines", "100,000 nodes"}});
  });
}
