#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "pnl/err.h"

namespace fleet {

/// How it stands with a node.
enum class NodeState {
  kWaiting,
  kChecked,   ///< logged in to; nothing is changed
  kRunning,   ///< gets the new key
  kFinished,  ///< has it
  kVerified,  ///< proved to accept it
  kRestored,  ///< put back, and looked at
  kAccepted,  ///< accepts the present key
  kRetired,   ///< an old key is gone
  kAbsent,    ///< it was not there
  kError,     ///< failed
};
/// "WAITING" and so on, for people and programs.
[[nodiscard]] FLEET_API const char* ToStr(NodeState state);

/// Who wants to see work on nodes as it goes on, or to end it early; all of it may be empty.
/// Several threads call these at once. What they throw is logged and changes nothing.
struct NodeWatch {
  /// A node has a new state; kError comes with the reason.
  std::function<void(const std::string& node, NodeState state, const std::string& reason)> changed =
      {};
  /// Asked before each node and between steps: true fails the nodes that are not done yet
  /// ("interrupted").
  std::function<bool()> stop = {};
  /// The reason that an error is; what() of it where this is empty.
  std::function<std::string(const pnl_err::Error& error)> reason = {};
};

/// The same work on all nodes, for several at a time: which failed, and why.
///
///     fleet::NodeWork work(nodes, {.changed = Tell});
///     work.Visit([&](const std::string& node) {
///       fleet::LogIn(setup, node, setup.private_key);
///       return fleet::NodeState::kAccepted;
///     });
///     if (work.Failed()) Show(work.Failures());
///
/// Set, Fail, Stopped and Failed() may be called by any thread at any time, the rest while nobody
/// is visiting.
class FLEET_API NodeWork {
 public:
  /// What is done with a node: its new state is returned; what is thrown fails the node.
  using Visitor = std::function<NodeState(const std::string& node)>;

  NodeWork(const std::vector<std::string>& nodes, NodeWatch watch);
  NodeWork(const NodeWork&) = delete;
  NodeWork& operator=(const NodeWork&) = delete;
  ~NodeWork();

  /// Calls `visit` with each node, on up to 16 threads at once, and waits for all. It does not
  /// throw what `visit` throws.
  void Visit(const Visitor& visit);

  void Set(const std::string& node, NodeState state) noexcept;
  void Fail(const std::string& node, const std::string& reason) noexcept;

  bool Stopped() const noexcept;  ///< whether the watcher asks to end the work
  bool Failed() const { return some_failed_; }
  bool Failed(const std::string& node) const;
  /// "1 of 20 nodes failed: 10.0.0.7 (reason)"; "" when none did. Beyond `told` they are counted
  /// only.
  std::string Failures(std::size_t told = 3) const;
  std::string FailedNodes() const;  ///< "10.0.0.7,10.0.0.9"
  /// Forgets the failures, for work that has to be done on all nodes, whatever the watcher asks.
  void Restart();

 private:
  void VisitOne(const std::string& node, const Visitor& visit) noexcept;
  void Tell(const std::string& node, NodeState state, const std::string& reason) const noexcept;
  std::string Reason(const pnl_err::Error& error) const noexcept;

  const std::vector<std::string> nodes_;
  const NodeWatch watch_;
  bool unstoppable_ = false;
  std::atomic<bool> some_failed_ = false;
  std::mutex mutex_;                           // guards failed_ while nodes are visited
  std::map<std::string, std::string> failed_;  // the reason by node
};

}  // namespace fleet
