// The operations of node_faults for the distribution of keys: by the library, by brefirctl, and to
// nodes that accept few logins.

#include <filesystem>
#include <thread>

#include "brefir/ssh_utils.h"
#include "brefir/sshkey_generate.h"
#include "faults/node_operation.h"
#include "faults/node_states.h"
#include "pnl/err.h"
#include "pnl/job.h"
#include "pnl/proc.h"

namespace node_faults {
namespace {

using Apply = ssh_gen::SshKeyGenerator::ApplySshKeysToRemoteNodesJob;
using Nodes = std::vector<std::unique_ptr<support::LabNode>>;
using support::LabNode;

const std::string kNewKey = "ssh-rsa NEW panel\n";  // of no pair: nobody logs in with it
constexpr const char* kKeys = ssh_gen::kAuthorizedKeys;

std::string On(const LabNode& node, const std::string& path) {
  return node.Root().string() + path;
}

std::string OldKeys() {
  return Get(support::LabKey() + ".pub");
}

void PutKeysOn(const LabNode& node) {
  for (const char* suffix : {".new", ".old", ".older"}) {
    std::filesystem::remove(On(node, std::string(kKeys) + suffix));
  }
  Put(On(node, kKeys), OldKeys());
}

std::string KeysStateOf(const LabNode& node, const std::string& added) {
  const std::string keys = Get(On(node, kKeys));
  if (added == "*" && keys != OldKeys() && keys.starts_with(OldKeys())) return "new";
  return StateOf(On(node, kKeys), OldKeys(), OldKeys() + added);
}

void Distribute(const std::vector<std::string>& nodes) {
  const std::string key = support::LabKey();
  new Apply(nodes, key, key + ".pub", key, "", "", kNewKey, support::LabKnownHosts(), false, "");
}

// --- Crowds

/// Connections that never log in, and take the places of those who would.
std::unique_ptr<pnl_proc::Execute> Idle(const LabNode& node, int count) {
  auto idlers = std::make_unique<pnl_proc::Execute>(
      "exec bash -c 'for ((i = 0; i < $1; ++i)); do exec {fd}<>/dev/tcp/$0/22; done; echo; "
      "exec cat' " +
      node.Address() + " " + std::to_string(count));
  std::string line;
  std::getline(idlers->Out(), line);
  return idlers;
}

Nodes MakeNodes(int count, const std::string& startups) {
  const support::LabOptions options{.sshd = {"MaxStartups " + startups}};
  Nodes nodes;
  while (count-- > 0) nodes.push_back(std::make_unique<LabNode>("debian12", options));
  return nodes;
}

/// All at once, to a node that lets few in at a time.
std::vector<std::string> ConnectMany(int callers) {
  const Nodes nodes = MakeNodes(1, "2:50:4");
  std::vector<std::string> states(static_cast<std::size_t>(callers));
  std::vector<std::jthread> threads;
  for (std::string& state : states) {
    threads.emplace_back([&] {
      try {
        pnl_rpc::SSH ssh(nodes[0]->Login(20));
        state = ssh_utils::os_info::Arch(ssh) == "x86_64" ? "done" : "WRONG";
      } catch (const pnl_err::Error& error) {
        state = error.type();
      }
    });
  }
  threads.clear();
  for (const std::string& state : states) {
    Expect(state == "done" || state == "ssh_connect" || state == "ssh_closed", state);
  }
  return states;
}

/// Rounds in which ever more nodes refuse every other login: all of the nodes have the new key
/// then, or none.
std::vector<std::string> DistributeToFew(int count, const std::string& startups, int idle,
                                         const std::vector<int>& rounds) {
  const Nodes nodes = MakeNodes(count, startups);
  std::vector<std::string> addresses;
  for (const auto& node : nodes) addresses.push_back(node->Address());
  std::vector<std::string> states;
  for (const int crowded : rounds) {
    for (const auto& node : nodes) PutKeysOn(*node);
    std::vector<std::unique_ptr<pnl_proc::Execute>> idlers;
    for (int i = 0; i < crowded; ++i) {
      idlers.push_back(Idle(*nodes[static_cast<std::size_t>(i)], idle));
    }
    std::string state = "new";
    try {
      Distribute(addresses);
      pnl_job::Commit();
    } catch (const pnl_err::Error& error) {
      Expect(error.type() == ssh_gen::kCopyFailed, error.what());
      state = "old";
    }
    for (const auto& node : nodes) {
      const std::string found = KeysStateOf(*node, kNewKey + "\n");
      Expect(found == state, node->Address() + " has the " + found + " keys, not the " + state);
    }
    states.push_back(state);
  }
  return states;
}

}  // namespace

void PutKeys(Site& site) {
  PutKeysOn(site.node);
  for (const auto& peer : site.peers) PutKeysOn(*peer);
}

std::string KeysState(const Site& site, const std::string& added) {
  const std::string state = KeysStateOf(site.node, added);
  for (const auto& peer : site.peers) {
    const std::string other = KeysStateOf(*peer, added);
    const bool leftover = Exists(On(*peer, std::string(kKeys) + ".new")) ||
                          (other == "old" && Exists(On(*peer, std::string(kKeys) + ".old")));
    if (leftover) return "LEFTOVER";
    if (other != state) return other == "old" && state == "new" ? "left" : "MIXED";
  }
  return state;
}

std::vector<Operation> KeyOperations() {
  const auto apply = [](const Site& s) {
    Distribute({s.peers[0]->Address(), s.node.Address(), s.peers[1]->Address()});
  };
  Operation applied{.name = "ApplySshKeysToRemoteNodesJob",
                    .call = [apply](Site& s) { apply(s), pnl_job::Commit(); },
                    .state = [](const Site& s) { return KeysState(s, kNewKey + "\n"); },
                    .failed = "old left",
                    .prepare = PutKeys,
                    .faults = kAllFaults,
                    .points = 5,
                    .seconds = 20 + 2 * static_cast<int>(ssh_gen::kUndoTime.count()),
                    .errors = "copy_ssh_keys",
                    .logs_in = false,
                    .with_peers = true,
                    .calls = {SYS_execve}};
  Operation undone = applied;
  undone.name += ", rolled back";
  undone.call = [apply](Site& s) { apply(s), pnl_job::Rollback(); };
  undone.done = "old left";
  return {applied, undone};
}

std::vector<Crowd> Crowds() {
  return {
      {"SSH: connect, 20 at once, MaxStartups 2:50:4", [] { return ConnectMany(20); }},
      {"Apply, 20 nodes, MaxStartups 2:50:4",
       [] {
         return DistributeToFew(20, "2:50:4", 2, {1, 2, 20});
       }},
      {"Apply, 10 nodes, MaxStartups 10:30:100",
       [] {
         return DistributeToFew(10, "10:30:100", 12, {0, 1, 2});
       }},
  };
}

}  // namespace node_faults
