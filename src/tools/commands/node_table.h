#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "console/terminal.h"
#include "tools/frame/verb.h"

namespace tools {

inline const std::vector<Field> kNodeFields = {
    {"node", "its address"},
    {"state",
     "WAITING, CHECKED, RUNNING, FINISHED, VERIFIED or RESTORED (rotate), ACCEPTED (verify), "
     "RETIRED or ABSENT (retire), ERROR when it failed"},
    {"ms", "milliseconds from the beginning to this state"},
    {"reason", "why it failed, else null"},
};

/// How it stands with each node. While work goes on it is drawn over and over on standard error,
/// when that is a terminal; programs get each change as a line (`lines`); at the end it is the
/// answer of the command.
///
/// Set may be called by any thread.
class NodeTable {
 public:
  enum class News { kNone, kLines };  ///< what programs get to see of the changes

  NodeTable(Context& context, const std::vector<std::string>& nodes, News news);
  NodeTable(const NodeTable&) = delete;
  NodeTable& operator=(const NodeTable&) = delete;
  ~NodeTable();

  /// A reason stays until there is a new one: what failed is told even when it is undone. A failure
  /// to tell is logged: the work goes on.
  void Set(const std::string& node, const std::string& state,
           const std::string& reason = "") noexcept;

  void End();    ///< ends the drawing
  void Print();  ///< also prints the table; programs that got the changes have seen it all

 private:
  using Clock = std::chrono::steady_clock;
  struct Row {
    std::string state = "WAITING";
    std::string reason;
    Clock::time_point since;
  };

  Record ToRecord(const std::string& node, const Row& row) const;
  std::int64_t Milliseconds(Clock::time_point until) const;  ///< since the beginning

  void StartPainter();
  void DrawOverAndOver(const std::stop_token& stop);
  void Draw(const std::vector<std::string>& lines);
  std::vector<std::string> Lines(const console::TerminalSize& size) const;
  std::string Line(const std::string& node, std::size_t columns) const;
  std::string Count() const;

  Context& context_;
  const std::vector<std::string> nodes_;
  const News news_;
  const Clock::time_point begun_ = Clock::now();

  std::mutex mutex_;  // guards what follows
  std::condition_variable_any wake_;
  std::map<std::string, Row> rows_;

  std::size_t drawn_ = 0;  // lines on the terminal; the painter's own
  std::jthread painter_;
};

}  // namespace tools
