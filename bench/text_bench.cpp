// Filling templates, compared with the formatting library's own substitution; and a disabled log
// line.

#include <fmt/args.h>
#include <fmt/format.h>

#include <string>

#include "brefir/str_utils.h"
#include "pnl/log.h"
#include "ratio.h"

namespace {

pnl_log::Module log_module("bench");

const std::string kTemplate =
    "ssh -i {PRIVATEKEY} {IP} -o UserKnownHostsFile=/dev/null -o GlobalKnownHostsFile=/dev/null "
    "-o StrictHostKeyChecking=no \"{CMD}\"";
const std::string kKey = "/usr/local/panel/etc/ssh/id_rsa";
const std::string kIp = "2001:db8::8:800:200c:417a";
const std::string kCommand = "cat /root/.ssh/authorized_keys";

void FormatLibrary(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(fmt::format(fmt::runtime(kTemplate), fmt::arg("PRIVATEKEY", kKey),
                                         fmt::arg("IP", kIp), fmt::arg("CMD", kCommand)));
  }
}
BENCHMARK(FormatLibrary);

void StrReplace(benchmark::State& state) {
  const StringMap map = {{"{PRIVATEKEY}", kKey}, {"{IP}", kIp}, {"{CMD}", kCommand}};
  for (auto _ : state) benchmark::DoNotOptimize(str::Replace(kTemplate, map));
}
BENCHMARK(StrReplace);

void StrFmt2(benchmark::State& state) {
  using str::formater::MkNamed;
  for (auto _ : state) {
    benchmark::DoNotOptimize(str::Fmt2(kTemplate, MkNamed("privateKey", kKey), MkNamed("ip", kIp),
                                       MkNamed("cmd", kCommand)));
  }
}
BENCHMARK(StrFmt2);

/// The time of one iteration is the time of one line.
void DisabledLogLine(benchmark::State& state) {
  pnl_log::Reload();  // the first line of a process reads the configuration
  PNL_TRACE(log_module, "%s", kKey.c_str());
  for (auto _ : state) {
    PNL_TRACE(log_module, "%s", kKey.c_str());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(DisabledLogLine);

}  // namespace

int main(int argc, char** argv) {
  return bench::Main(argc, argv,
                     {{"StrReplace", "FormatLibrary", "at most 1.5"},
                      {"StrFmt2", "FormatLibrary", "at most 3.5"}});
}
