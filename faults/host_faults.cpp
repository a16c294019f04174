// What needs a panel host of its own: its kernel parameters, a file of the host and the command
// that loads it; and files that are written while a node is connected.

#include <stdlib.h>

#include "brefir/ssh_utils.h"
#include "brefir/sysctl.h"
#include "faults/operation.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "pnl/ssh.h"
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

// --- With a node

constexpr const char* kNote = "# ours\n";

pnl_rpc::SSH LogIn(const support::LabNode& node, const std::string& known_hosts) {
  return pnl_rpc::SSH({.host = node.Address(),
                       .key_file = support::LabKey(),
                       .known_hosts = known_hosts,
                       .host_keys = pnl_rpc::HostKeys::kAcceptNew});
}

/// `part` where the text is a beginning of the new one.
std::string Beginning(const std::string& text, const std::string& old, const std::string& changed) {
  return text != old && text != changed && changed.starts_with(text) ? "part"
                                                                     : OldOrNew(text, old, changed);
}

std::vector<Operation> NodeOperations(const support::LabNode& node) {
  const std::string known = Text(support::LabKnownHosts());  // of any node
  const std::string noted = kNote + node.Address() + known.substr(known.find(' '));
  const std::string copied(300'000, 'x');
  Put(node.Root() / "big", copied);
  return {
      // Once the key is noted the login may still fail.
      {.name = "known_hosts, a new node",
       .prepare = [] { Put("known_hosts", kNote); },
       .work = [&node] { LogIn(node, "known_hosts"); },
       .state = [=] { return Beginning(Text("known_hosts"), kNote, noted); },
       .torn = "part",
       .calls = faults::Calls::kOwn,
       .late = true},
      {.name = "CopyFrom, the local file",
       .prepare = [] { Put("copy", kOld); },
       .work =
           [&node] {
             auto ssh = LogIn(node, support::LabKnownHosts());
             ssh_utils::file::CopyFrom(ssh, "/big", "copy");
           },
       .state = [=] { return Beginning(Text("copy"), kOld, copied); },
       .torn = "part",
       .calls = faults::Calls::kOwn,
       .late = true},
  };
}

}  // namespace

int main(int argc, char** argv) {
  if (support::LabKey().empty()) return 77;  // the real file is nobody's to try with
  const support::LabNode node;
  std::vector<Operation> operations = Operations();
  for (Operation& operation : NodeOperations(node)) operations.push_back(std::move(operation));
  return faults::Run(argc, argv, operations);
}
