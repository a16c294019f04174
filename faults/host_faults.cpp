// Operations that need a private panel host: kernel parameters with their file and the command that
// loads it; files that are written while a node is connected.

#include <stdlib.h>

#include "brefir/ssh_utils.h"
#include "brefir/sysctl.h"
#include "faults/operation.h"
#include "faults/table.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "pnl/ssh.h"
#include "support/lab.h"

namespace {

using namespace faults;

constexpr const char* kConf = "/etc/sysctl.conf";
constexpr const char* kOld = "# ours\nnet.ipv4.ip_forward = 0\n";
constexpr const char* kNew = "# ours\nnet.ipv4.ip_forward = 1\n";

void Forward() {
  auto* const conf = new sysctl::Conf(sysctl::Local());
  conf->SetParamValue("net.ipv4.ip_forward", 1);
  conf->Run();
}

/// The file may be written and the command that loads it fail to start: the transaction, which is
/// rolled back then, puts the old one back.
std::vector<Operation> Operations() {
  const auto commit = [] {
    pnl_job::Transaction transaction;
    Forward();
    transaction.Commit();
  };
  const auto rollback = [] {
    if (Get(kConf) == kNew) Put(kConf, kOld);  // what a failed one left
    Forward();
    pnl_job::Rollback();
  };
  Operation run = faults::Edit("kernel parameters, Run", kConf, kOld, kNew, commit);
  run.callers = faults::Callers::kOwn;
  // A rollback cannot tell that it failed, only log it.
  Operation back = run;
  back.name = "kernel parameters, rollback";
  back.work = rollback;
  back.state = [] {
    const std::string text = Get(kConf);
    return text == kOld ? "new" : OldOrNew(text, kNew, "");
  };
  back.silent = back.late = true;
  return {run, back};
}

// --- With a node

constexpr const char* kNote = "# ours\n";

/// Written in place: an error may leave a beginning, "part".
Operation Grow(const std::string& path, const std::string& before, const std::string& after,
               const std::string& name, const std::function<void()>& work) {
  Operation operation = faults::Edit(name, path, before, after, work);
  operation.state = [=, whole = operation.state] {
    const std::string text = Get(path);
    return text != before && text != after && after.starts_with(text) ? "part" : whole();
  };
  operation.torn = "part";
  operation.callers = faults::Callers::kOwn;
  operation.late = true;
  return operation;
}

std::vector<Operation> NodeOperations(const support::LabNode& node) {
  const std::string known = Get(support::LabKnownHosts());  // of any node
  const std::string noted = kNote + node.Address() + known.substr(known.find(' '));
  const std::string copied(300'000, 'x');
  Put(node.Root() / "big", copied);
  const auto copy = [&node] {
    pnl_rpc::SSH ssh(node.Login());
    ssh_utils::file::CopyFrom(ssh, "/big", "copy");
  };
  // After the host key was added the login may still fail.
  const auto log_in = [&node] {
    pnl_rpc::SshOptions options = node.Login();
    options.known_hosts = "known_hosts";
    options.host_keys = pnl_rpc::HostKeys::kAcceptNew;
    const pnl_rpc::SSH ssh(options);
  };
  return {Grow("known_hosts", kNote, noted, "known_hosts, a new node", log_in),
          Grow("copy", kOld, copied, "CopyFrom, the local file", copy)};
}

}  // namespace

int main(int argc, char** argv) {
  if (support::LabKey().empty()) return 77;  // never test with the real file
  const support::LabNode node;
  return faults::Run(argc, argv, faults::Joined({Operations(), NodeOperations(node)}));
}
