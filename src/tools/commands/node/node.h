#pragma once

#include <string>
#include <vector>

#include "pnl/host.h"
#include "pnl/ssh.h"
#include "tools/frame/verb.h"

/// What the verbs of the family "node" share.
namespace tools {

// One function per verb, in VERB.cpp.
Verb NodeFactsVerb();
Verb NodeReadVerb();
Verb NodeWriteVerb();
Verb NodeStatVerb();
Verb NodeExistsVerb();
Verb NodeTouchVerb();
Verb NodeMkdirVerb();
Verb NodeRmVerb();
Verb NodeMvVerb();
Verb NodeCpVerb();
Verb NodeLnVerb();
Verb NodeChmodVerb();
Verb NodeGetVerb();
Verb NodePutVerb();
Verb NodeTreeVerb();
Verb NodeSyncVerb();
Verb NodeKillVerb();
Verb NodeTerminateVerb();
Verb NodeCtlVerb();

/// A command that changes the file `path` of a node.
struct NodeCommand {
  pnl_rpc::SSH ssh;
  std::string path;
  const char* type;  ///< of the error when it fails, which says "... could not be `done`"
  const char* done;
  std::string command;
};
[[nodiscard]] Change CommandChange(const NodeCommand& command, const Record& record);

/// Where mv and cp put `from`: a directory takes its name.
struct NodeTarget {
  NodeTarget(pnl_rpc::SSH& ssh, const std::string& from, const std::string& to);

  std::string path;
  std::string word;  ///< what the commands are told
};

/// With --checksum: both files have one sum. A copy that was changed on the way has another.
void CompareSums(const Context& context, pnl_host::Host& host, const std::string& remote,
                 const std::string& local);

void DescribePath(opts::Args& args);    ///< PATH, on the node
void DescribeFromTo(opts::Args& args);  ///< FROM and TO, there
void DescribePid(opts::Args& args);
void DescribeChecksum(opts::Args& args);

/// The word PID.
[[nodiscard]] int Pid(const Context& context);

inline const Field kPathField = {"path", "the path on the node"};
inline const Field kTargetField = {"path", "where it is now"};
inline const Field kPidField = {"pid", "the process"};
inline const Field kDestField = {"path", "the directory on the node"};
/// Of get and put.
[[nodiscard]] std::vector<Field> CopiedFields();

}  // namespace tools
