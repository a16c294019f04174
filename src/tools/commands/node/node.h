#pragma once

#include <cstdint>
#include <memory>
#include <optional>
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
Verb NodeChownVerb();
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

/// The content that a file of nodes gets: that of a file of this host, or of standard input. Small
/// content is kept in memory, and is in the plan; other content is read when it is sent.
class NewContent {
 public:
  /// Reads a regular file once, for its sum.
  explicit NewContent(const std::string& path);
  /// Reads all of standard input: no node is changed before that.
  static NewContent StandardInput();

  std::uint64_t Size() const { return size_; }  ///< bytes
  void Write(fleet::Draft& draft, const std::string& path) const;

 private:
  std::shared_ptr<const pnl_file::Tmp> tmp_ =
      {};  // of standard input; lives as long as this object
  std::string source_;
  std::uint64_t size_ = 0;
  std::uint32_t sum_ = 0;
  fleet::FileText text_ = {};
};

/// What mv and cp do: FROM becomes TO, or goes into the directory TO under its name.
using TwoPaths = void (fleet::Draft::*)(const std::string& from, const std::string& to);
[[nodiscard]] HostEdit FromTo(Context& context, TwoPaths edit);

/// When the word for a path on the node ends with "/", it must be a directory: otherwise refuses.
/// The path was asked for in Looks::files.
void RequireMeant(const fleet::Draft& draft, const std::string& word, const std::string& name);
/// Refuses a word that ends with "/", for a path that is no directory.
void RequireNoSlash(const fleet::Draft& draft, const std::string& word, const std::string& name);

/// Throws unless both files have the same sum. A copy that was changed on the way has another.
void CompareSums(pnl_host::Host& host, const std::string& remote, const std::string& local);

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
