#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "console/field_table.h"
#include "console/terminal.h"
#include "fleet/node_work.h"

namespace console {

/// The state of a node.
struct NodeRow {
  std::string node;
  fleet::NodeState state = fleet::NodeState::kWaiting;
  std::int64_t ms = 0;                    ///< from the start to this state
  std::optional<std::string> error = {};  ///< stays until there is a new error
};
extern const FieldTable<NodeRow> kNodeFields;

/// The states of all nodes. During the work the table is redrawn on standard error, if `draws` is
/// true and standard error is a terminal. At the end it is the command's output.
///
/// Set is thread-safe.
class NodeTable {
 public:
  NodeTable(const std::vector<std::string>& nodes, bool draws);
  NodeTable(const NodeTable&) = delete;
  NodeTable& operator=(const NodeTable&) = delete;
  ~NodeTable();

  /// An error stays in the table even when the node's change is undone later. A failure to draw is
  /// only logged.
  void Set(const std::string& node, fleet::NodeState state, const std::string& error = "") noexcept;

  void End();                     ///< stops the drawing
  std::vector<Record> Records();  ///< stops the drawing; returns the states
  /// Call it only after End.
  fleet::NodeState State(const std::string& node) const { return rows_.at(node).state; }

 private:
  using Clock = std::chrono::steady_clock;

  std::int64_t Milliseconds() const;  ///< since the start

  void StartPainter();
  void DrawOverAndOver(const std::stop_token& stop);
  void Draw(const std::vector<std::string>& lines);
  std::vector<std::string> Lines(const console::TerminalSize& size) const;
  std::string Line(const std::string& node, std::size_t columns) const;
  std::string Count() const;

  const std::vector<std::string> nodes_;
  const Clock::time_point begun_ = Clock::now();

  std::mutex mutex_;  // guards the members below
  std::condition_variable_any wake_;
  std::map<std::string, NodeRow> rows_;

  std::size_t drawn_ = 0;  // lines on the terminal; for the drawing thread only
  std::jthread painter_;
};

}  // namespace console
