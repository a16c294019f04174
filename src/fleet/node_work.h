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

/// The state of the work on a node.
enum class NodeState {
  kWaiting,
  kChecked,   ///< login succeeded; nothing is changed
  kRunning,   ///< the new key is being added
  kFinished,  ///< the node has the new key
  kVerified,  ///< a login with the new key succeeded
  kRestored,  ///< restored and checked
  kError,     ///< failed
};
/// "WAITING" and so on, for people and programs.
[[nodiscard]] FLEET_API const char* ToStr(NodeState state);

/// Callbacks to watch work on nodes, or to end it early; each may be empty. Several threads call
/// them at the same time. What they throw is logged and has no other effect.
struct NodeWatch {
  /// A node has a new state; for kError `reason` is set.
  std::function<void(const std::string& node, NodeState state, const std::string& reason)> changed =
      {};
  /// Called before each node and between steps. True makes the unfinished nodes fail
  /// ("interrupted").
  std::function<bool()> stop = {};
  /// The text of an error for people; by default its what().
  std::function<std::string(const pnl_err::Error& error)> reason = {};
};

/// Does the same work on all nodes, several at a time, and records which nodes failed and why.
///
///     fleet::NodeWork work(nodes, {.changed = Tell});
///     work.Visit([&](const std::string& node) {
///       fleet::LogIn(setup, node, setup.private_key);
///       return fleet::NodeState::kVerified;
///     });
///     if (work.Failed()) Show(work.Failures());
///
/// Set, Fail, Stopped and Failed() may be called by any thread at any time, the other functions
/// only while Visit is not running.
class FLEET_API NodeWork {
 public:
  /// The work on one node. It returns the node's new state; an exception makes the node fail.
  using Visitor = std::function<NodeState(const std::string& node)>;

  NodeWork(const std::vector<std::string>& nodes, NodeWatch watch);
  NodeWork(const NodeWork&) = delete;
  NodeWork& operator=(const NodeWork&) = delete;
  ~NodeWork();

  /// Calls `visit` for each node on up to 16 threads, and waits for all. Does not throw what
  /// `visit` throws.
  void Visit(const Visitor& visit);

  void Set(const std::string& node, NodeState state) noexcept;
  void Fail(const std::string& node, const std::string& reason) noexcept;

  bool Stopped() const noexcept;  ///< whether NodeWatch::stop has returned true
  bool Failed() const { return some_failed_; }
  bool Failed(const std::string& node) const;
  /// "1 of 20 nodes failed: 10.0.0.7 (reason)"; "" when none did. At most `told` of them are named.
  std::string Failures(std::size_t told = 3) const;
  std::string FailedNodes() const;  ///< "10.0.0.7,10.0.0.9"
  /// Clears the failures and ignores NodeWatch::stop from now on, for work that must be done on all
  /// nodes.
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
