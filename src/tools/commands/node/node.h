#pragma once

#include <string>
#include <vector>

#include "brefir/ssh_utils.h"
#include "pnl/file.h"
#include "pnl/host.h"
#include "pnl/proc.h"
#include "pnl/ssh.h"
#include "tools/commands/host_file.h"
#include "tools/frame/login.h"
#include "tools/frame/verb.h"

/// What the verbs of the family "node" share.
namespace tools {

Verb NodeListVerb();
Verb NodeShowVerb();
Verb NodeAddVerb();
Verb NodeRemoveVerb();
Verb NodeScanVerb();
Verb NodeStatusVerb();
Verb NodeHistoryVerb();
Verb NodeExecVerb();
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

// --- The inventory

/// What the inventory says of a node, and the columns of it that people see in a list.
[[nodiscard]] const FieldTable<fleet::Node>& InventoryFields();
inline const std::vector<std::string> kInventoryColumns = {"node", "host", "user", "port",
                                                           "groups"};

/// null for "".
[[nodiscard]] Value OrNull(const std::string& text);

/// SELECTION, of nodes.
opts::Arg& DescribeSelection(opts::Args& args);

/// The change of the inventory's text by `edit`, which returns the output. `path` is for errors.
[[nodiscard]] Change InventoryChange(
    const Context& context,
    const std::function<Answer(std::string& text, const std::string& path)>& edit);

// --- A node

/// What is done on a node in these words, and told of by what `work` returns.
[[nodiscard]] Change ActChange(const std::string& node, const std::string& words,
                               std::function<Answer()> work);

/// A command that changes the file `path` of a node.
struct NodeCommand {
  pnl_rpc::SSH ssh;
  std::string path;
  const char* type;  ///< of the error when it fails, which says "... could not be `done`"
  const char* done;
  std::string command;
};
[[nodiscard]] Change CommandChange(const NodeCommand& command, const Record& record);

/// The local text that takes the place of a file of a node, block by block: it may be larger than
/// memory, and is in the plan only where nothing else is wanted.
struct NewContent {
  pnl_file::Fd fd;
  std::string name;
  std::uint64_t size = 0;  ///< bytes

  std::size_t Give(char* block, std::size_t room) const;
};
[[nodiscard]] Change ContentChange(
    const Context& context, pnl_host::Host host, const std::string& path, NewContent content,
    Record record, const std::function<void()>& then = [] {});

/// What mv and cp do: FROM becomes TO, or goes into the directory TO under its name.
[[nodiscard]] Change FromTo(Context& context, const std::string& command, const char* done);

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
inline const Field kPidField = {"pid", "the process"};
inline const Field kDestField = {"path", "the directory on the node"};
inline const std::vector<Field> kCopiedFields = {
    {"path", "the file on the node"}, {"local", "the file on this host"}, {"size", "bytes"}};

}  // namespace tools
