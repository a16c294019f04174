#pragma once

#include <sys/syscall.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "pnl/ssh.h"
#include "support/lab.h"

/// The operations of node_faults: one for every function that works on a node.
namespace node_faults {

/// The test objects of one call: a node, a session to it and a directory on it.
struct Site {
  const support::LabNode& node;
  const std::vector<std::unique_ptr<support::LabNode>>& peers;  ///< two more, for many nodes
  std::string dir;                        ///< on the node, absolute; made by the engine
  std::unique_ptr<pnl_rpc::SSH> session;  ///< null for what connects by itself

  pnl_rpc::SSH& Ssh() { return *session; }
  std::string Path(const std::string& name) const { return dir + "/" + name; }
  /// Where this host finds a file of the node.
  std::string Here(const std::string& path) const { return node.Root().string() + path; }
};

/// A wrong answer. It is not a pnl_err::Error, so that it is not taken for an error of the library.
struct Wrong : std::runtime_error {
  using runtime_error::runtime_error;
};
void Expect(bool right, const std::string& what);

/// A function under test. States are single words, sets of them separated by blanks.
struct Operation {
  std::string name;
  std::function<void(Site&)> call;  ///< throws Wrong when the answer is wrong
  /// Returns the state after the fault is over; null when the call changes nothing.
  std::function<std::string(const Site&)> state = nullptr;
  std::string failed = "old new";  ///< states that may be found after an error
  std::string done = "new";        ///< after a return; the first one when nothing went wrong
  /// After a return on a full or read-only disk, when the failure was logged.
  std::string silent = "";
  std::function<void(Site&)> prepare = nullptr;
  std::string faults = "cut silence fill readonly";
  int points = 2;
  bool early = true;        ///< a fault may come before the first system call
  int seconds = 2 + 5;      ///< the call may take; the session's time-out is 2 s
  std::string errors = "";  ///< types that the header names besides those of the session
  std::string os = "debian12";
  bool logs_in = true;
  bool with_peers = false;  ///< works on those, too
  /// The system calls before which a fault may come; by default those of libssh on the socket.
  std::vector<int> calls = {SYS_sendto, SYS_recvfrom};
};

/// Many callers, or too few connections: `run` throws Wrong, and returns a state for each caller.
struct Crowd {
  std::string name;
  std::function<std::vector<std::string>()> run;
};

constexpr int kTimeout = 2;  // seconds
constexpr const char* kAllFaults = "cut silence unplug crash fill readonly";

/// Root's keys on the node and its peers as a lab makes them, without what an earlier run left.
void PutKeys(Site& site);
/// "old" and "new" where all nodes have that, "left" where only the peers have the old keys.
/// `added` is what follows the old keys; "*" anything.
std::string KeysState(const Site& site, const std::string& added);

std::vector<Operation> FileOperations();
std::vector<Operation> SystemOperations();
std::vector<Operation> KeyOperations();
std::vector<Operation> ProgramOperations();
std::vector<Crowd> Crowds();

}  // namespace node_faults
