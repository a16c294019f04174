// Kernel parameters: a file of the host itself, and the command that loads it.

#include <stdlib.h>

#include "brefir/sysctl.h"
#include "faults/operation.h"
#include "pnl/job.h"
#include "support/lab.h"

namespace {

using faults::OldOrNew;
using faults::Operation;
using faults::Put;
using faults::Text;

constexpr const char* kConf = "/etc/sysctl.conf";
constexpr const char* kOld = "# ours\nnet.ipv4.ip_forward = 0\n";
constexpr const char* kNew = "# ours\nnet.ipv4.ip_forward = 1\n";

void PutConf() {
  Put(kConf, kOld);
}

sysctl::Conf* Forward() {
  auto* const conf = new sysctl::Conf(sysctl::Local());
  conf->SetParamValue("net.ipv4.ip_forward", 1);
  conf->Run();
  return conf;
}

/// The file may be written and the command that loads it fail to start: the transaction, which is
/// rolled back then, puts the old one back.
std::vector<Operation> Operations() {
  return {
      {.name = "kernel parameters, Run",
       .prepare = PutConf,
       .work =
           [] {
             pnl_job::Transaction transaction;
             Forward();
             transaction.Commit();
           },
       .state = [] { return OldOrNew(Text(kConf), kOld, kNew); },
       .calls = faults::Calls::kOwn},
      // A rollback cannot tell that it failed, only log it.
      {.name = "kernel parameters, rollback",
       .prepare = PutConf,
       .work =
           [] {
             if (Text(kConf) == kNew) PutConf();  // what a failed one left
             Forward();
             pnl_job::Rollback();
           },
       .state =
           [] {
             const std::string text = Text(kConf);
             return text == kOld ? "new" : OldOrNew(text, kNew, "");
           },
       .calls = faults::Calls::kOwn,
       .silent = true,
       .late = true},
  };
}

}  // namespace

int main(int argc, char** argv) {
  if (support::LabKey().empty()) return 77;  // the real file is nobody's to try with
  return faults::Run(argc, argv, Operations());
}
