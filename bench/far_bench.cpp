// The facts of a node that is far away, over a link with a delay of 25 ms each way: compared with one
// command that does nothing, and with one command for each of the first five facts.
//
// It needs a lab with one node: scripts/bench runs it there. Environment: LAB_KEY, LAB_KNOWN_HOSTS,
// BENCH_NODES, as lab/run and scripts/bench give them.

#include "brefir/ssh_utils.h"
#include "fleet/facts.h"
#include "lab.h"
#include "pnl/host.h"

namespace {

using bench::Environment;
using bench::Must;

const char* const kHere = "10.99.0.1";  // the panel host; the lab knows the key of its port 22
const char* const kDelay = "25";        // milliseconds each way

/// Ends with this process.
void MakeFarNode() {
  const std::string command = std::string("exec lab/delay ") + kDelay + " " +
                              Environment("BENCH_NODES") + " " + kHere + ":22";
  FILE* const forwarder = popen(command.c_str(), "r");
  char place[64];
  Must(forwarder != nullptr && std::fgets(place, sizeof place, forwarder) != nullptr, command);
}

pnl_rpc::SSH LogIn() {
  return pnl_rpc::SSH({.host = kHere,
                       .key_file = Environment("LAB_KEY"),
                       .known_hosts = Environment("LAB_KNOWN_HOSTS")});
}

void FarTrue(benchmark::State& state) {
  for (auto _ : state) Must(LogIn().Execute("true").Result() == 0, "true");
}

void FarFacts(benchmark::State& state) {
  for (auto _ : state) {
    pnl_host::Host host(LogIn());
    Must(!fleet::AskFacts(host).os.empty(), "facts");
  }
}

void FarOneByOne(benchmark::State& state) {
  namespace os_info = ssh_utils::os_info;
  for (auto _ : state) {
    pnl_rpc::SSH ssh = LogIn();
    Must(!os_info::Arch(ssh).empty() && os_info::Type(ssh) != 0, "facts");
    static_cast<void>(os_info::BootDate(ssh));
    Must(!os_info::Version(ssh).empty() && !os_info::GetOs(ssh).empty(), "facts");
  }
}

int Run(const std::vector<char*>& words) {
  MakeFarNode();
  constexpr int kRepetitions = 7;
  for (const auto& [name, function] :
       {std::pair("FarTrue", &FarTrue), std::pair("FarFacts", &FarFacts),
        std::pair("FarOneByOne", &FarOneByOne)}) {
    bench::RegisterWaiting(name, function, kRepetitions, 3);
  }
  const auto clock = bench::Time::kClock;
  return bench::MainInterleaved(words, {{"FarFacts", "FarTrue", "at most 1.1", clock},
                                        {"FarOneByOne", "FarFacts", "at least 3", clock}});
}

}  // namespace

int main(int argc, char** argv) {
  return bench::Program([&] { return Run({argv, argv + argc}); });
}
