#pragma once

#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "console/terminal.h"
#include "fleet/facts.h"
#include "fleet/journal.h"
#include "fleet/status.h"

/// What `node status` knows of a node, and how people see it.
namespace tools {

struct NodeStatus {
  std::string node;
  std::string state;  ///< one of Round, or kAttention
  std::optional<std::chrono::milliseconds> login = {};
  /// Of a node that did not answer: what it said earlier; null if nothing is known.
  std::optional<fleet::Facts> facts = {};
  bool answered = false;
  std::vector<fleet::Trouble> troubles = {};
  std::string error = {};  ///< why it did not answer
  std::optional<fleet::Journal::LastChange> change = {};
  std::optional<std::time_t> sample = {};

  static constexpr const char* kAttention = "attention";
  bool IsWell() const;
};

/// Counts the nodes that are well and lists the others, the worst first; nodes with the same trouble
/// are one row. With `size`, the text has at most that many rows and columns: what does not fit is
/// counted.
[[nodiscard]] std::string StatusScreen(const std::vector<NodeStatus>& nodes, std::time_t now,
                                       const std::optional<console::TerminalSize>& size);

}  // namespace tools
