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

/// How it stands with a node.
struct NodeRow {
  std::string node;
  fleet::NodeState state = fleet::NodeState::kWaiting;
  std::int64_t ms = 0;                    ///< from the beginning to this state
  std::optional<std::string> error = {};  ///< stays until there is a new one
};
extern const FieldTable<NodeRow> kNodeFields;

/// How it stands with each node. While work goes on it is drawn over and over on standard error,
/// when `draws` and that is a terminal; at the end it is the answer of the command.
///
/// Set may be called by any thread.
class NodeTable {
 public:
  NodeTable(const std::vector<std::string>& nodes, bool draws);
  NodeTable(const NodeTable&) = delete;
  NodeTable& operator=(const NodeTable&) = delete;
  ~NodeTable();

  /// An error stays: what failed is told even when it is undone. A failure to tell is logged: the
  /// work goes on.
  void Set(const std::string& node, fleet::NodeState state, const std::string& error = "") noexcept;

  void End();                     ///< ends the drawing
  std::vector<Record> Records();  ///< ends it, and tells how it stands
  /// For when it is ended.
  fleet::NodeState State(const std::string& node) const { return rows_.at(node).state; }

 private:
  using Clock = std::chrono::steady_clock;

  std::int64_t Milliseconds() const;  ///< since the beginning

  void StartPainter();
  void DrawOverAndOver(const std::stop_token& stop);
  void Draw(const std::vector<std::string>& lines);
  std::vector<std::string> Lines(const console::TerminalSize& size) const;
  std::string Line(const std::string& node, std::size_t columns) const;
  std::string Count() const;

  const std::vector<std::string> nodes_;
  const Clock::time_point begun_ = Clock::now();

  std::mutex mutex_;  // guards what follows
  std::condition_variable_any wake_;
  std::map<std::string, NodeRow> rows_;

  std::size_t drawn_ = 0;  // lines on the terminal; the painter's own
  std::jthread painter_;
};

}  // namespace console
