#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "pnl/ssh.h"
#include "tools/command.h"
#include "tools/interrupt.h"
#include "tools/node_table.h"

/// What the commands of the family "key" share: the panel's key pair, and the nodes that accept it.
namespace tools {

/// --nodes, --public, --private, --known-hosts, --accept-new, --timeout.
void AddKeyOptions(opts::Args& args);

/// The addresses in the file `path` when there is one, else those in `word`, with commas between
/// them; as they stand there.
[[nodiscard]] std::vector<std::string> NodesNamed(const std::string& word, const std::string& path);

/// What they say, or else the settings; paths may be relative to the prefix.
struct KeySetup {
  std::vector<std::string> nodes;  ///< addresses, each once
  std::string public_key;
  std::string private_key;
  std::string known_hosts;  ///< "": root's own
  bool accept_new = false;
  int timeout = 0;  ///< seconds; 0: the usual one
};

/// Throws pnl_err::Error of type "usage" for an address or path that the shell would not take as
/// one word, as the distribution has them on its command lines, and for a missing key file.
[[nodiscard]] KeySetup ReadKeySetup(const Context& context);

/// A session of its own, with that key and no other: never one that was opened before.
[[nodiscard]] pnl_rpc::SSH LogIn(const KeySetup& setup, const std::string& node,
                                 const std::string& private_key);

/// The public half of that private key, as KeyOf gives it, whatever a .pub file beside it says.
/// Throws pnl_err::Error of type "usage" when it is no private key, or has a pass phrase.
[[nodiscard]] std::string PublicHalf(const std::string& private_key);
/// The same of a private key file's text; "" when it is none.
[[nodiscard]] std::string PublicHalfOf(const std::string& text);

/// The same work on all nodes: how it stands with each, which failed, and why. An interruption of
/// the program fails the nodes that have not been visited yet.
class NodeWork {
 public:
  NodeWork(Context& context, const std::vector<std::string>& nodes, NodeTable::News news);

  /// Calls `visit` with each node, for several at a time by threads, and waits for all. What it
  /// returns is the node's new state; what it throws fails the node.
  void Visit(const std::function<std::string(const std::string& node)>& visit);

  void Set(const std::string& node, const std::string& state) noexcept { table_.Set(node, state); }
  void Fail(const std::string& node, const std::string& reason) noexcept;  ///< by any thread

  bool Interrupted() const { return !unstoppable_ && interruption_.Happened(); }
  bool Failed() const { return some_failed_; }
  bool Failed(const std::string& node) const { return failed_.contains(node); }
  /// "1 of 20 nodes failed: 10.0.0.7 (reason)"; "" when none did. Beyond `told` they are counted
  /// only.
  std::string Failures(std::size_t told = 3) const;
  std::string FailedNodes() const;  ///< "10.0.0.7,10.0.0.9"
  /// Forgets the failures, for work that has to be done on all nodes, interrupted or not.
  void Restart();

  void Print() { table_.Print(); }  ///< the answer of the command: all nodes and their states
  void End() { table_.End(); }      ///< without one

 private:
  void VisitOne(const std::string& node,
                const std::function<std::string(const std::string& node)>& visit) noexcept;

  const std::vector<std::string> nodes_;
  const NotedInterruption interruption_;
  bool unstoppable_ = false;
  std::atomic<bool> some_failed_ = false;
  std::mutex mutex_;                           // guards failed_ while nodes are visited
  std::map<std::string, std::string> failed_;  // the reason by node
  NodeTable table_;
};

}  // namespace tools
