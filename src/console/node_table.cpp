#include "console/node_table.h"

#include <algorithm>
#include <cstdio>

#include "brefir/guarded.h"
#include "pnl/log.h"
#include "pnl/utf8.h"

namespace console {
namespace {

using fleet::NodeState;

pnl_log::Module log_module("node_table");

constexpr auto kInterval = std::chrono::milliseconds(200);

template <class Report>
void Guarded(const Report& report) noexcept {
  utils::Guarded(log_module, "a state could not be reported", report);
}

bool AtWork(NodeState state) {
  return state == NodeState::kWaiting || state == NodeState::kRunning;
}

/// The smaller, the more it is worth a line.
int Rank(NodeState state) {
  if (state == NodeState::kError) return 0;
  if (state == NodeState::kWaiting) return 2;
  return state == NodeState::kRunning ? 1 : 3;
}
constexpr int kAnyRank = 4;

}  // namespace

const FieldTable<NodeRow> kNodeFields = {
    {{"node", "the address of the node"}, &NodeRow::node},
    {{"state", "CHECKED, VERIFIED or RESTORED, ERROR when it failed",
      "not with --dry-run or --check"},
     [](const NodeRow& row) { return ToStr(row.state); }},
    {{"ms", "milliseconds from the start to this state", "not with --dry-run or --check"},
     &NodeRow::ms},
    {{"error", "the reason of the failure, or null", "not with --dry-run or --check"},
     &NodeRow::error}};

NodeTable::NodeTable(const std::vector<std::string>& nodes, bool draws) : nodes_(nodes) {
  for (const std::string& node : nodes_) rows_[node].node = node;
  if (draws && CanDraw()) Guarded([this] { StartPainter(); });
}

NodeTable::~NodeTable() {
  End();
}

void NodeTable::Set(const std::string& node, NodeState state, const std::string& error) noexcept {
  Guarded([&] {
    const std::lock_guard guard(mutex_);
    NodeRow& row = rows_[node];
    row.state = state;
    row.ms = Milliseconds();
    if (!error.empty()) row.error = error;
  });
}

void NodeTable::End() {
  if (!painter_.joinable()) return;
  painter_.request_stop();
  painter_.join();
}

std::vector<Record> NodeTable::Records() {
  End();
  std::vector<Record> records;
  for (const std::string& node : nodes_) records.push_back(ToRecord(kNodeFields, rows_.at(node)));
  return records;
}

std::int64_t NodeTable::Milliseconds() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun_).count();
}

// --- On a terminal

void NodeTable::StartPainter() {
  painter_ = std::jthread(
      [this](const std::stop_token& stop) { Guarded([&] { DrawOverAndOver(stop); }); });
}

void NodeTable::DrawOverAndOver(const std::stop_token& stop) {
  std::unique_lock lock(mutex_);
  while (!stop.stop_requested()) {
    const std::vector<std::string> lines = Lines(GetTerminalSize());
    lock.unlock();  // a stopped terminal must not block the work
    Draw(lines);
    lock.lock();
    wake_.wait_for(lock, stop, kInterval, [] { return false; });
  }
  lock.unlock();
  Draw({});
}

/// Draws over the old table: moves the cursor up to its first line and erases all below.
void NodeTable::Draw(const std::vector<std::string>& lines) {
  std::string text = drawn_ > 0 ? "\x1b[" + std::to_string(drawn_) + "A\x1b[J" : "";
  for (const std::string& line : lines) text += line + "\n";
  const std::lock_guard drawing(DrawingLock());
  std::fputs(text.c_str(), stderr);
  drawn_ = lines.size();
}

/// Where not all fit: failed nodes first, then those at work, then waiting ones; the rest is counted.
std::vector<std::string> NodeTable::Lines(const TerminalSize& size) const {
  const std::size_t room = std::max<std::size_t>(size.rows, 3) - 2;  // for the count and the cursor
  std::vector<std::string> lines;
  for (int rank = nodes_.size() <= room ? kAnyRank : 0; rank <= kAnyRank; ++rank) {
    for (const std::string& node : nodes_) {
      if (lines.size() == room) break;
      const NodeState state = rows_.at(node).state;
      if (rank == kAnyRank ? nodes_.size() <= room : rank == Rank(state))
        lines.push_back(Line(node, size.columns));
    }
  }
  lines.push_back(Count());
  return lines;
}

std::string NodeTable::Line(const std::string& node, std::size_t columns) const {
  const NodeRow& row = rows_.at(node);
  const std::int64_t time = AtWork(row.state) ? Milliseconds() : row.ms;
  const std::string line = str::Format("%-24s  %-12s  %6.1f s  ", node, ToStr(row.state),
                                       static_cast<double>(time) / 1000) +
                           utf8::Printable(row.error.value_or(""));
  return std::string(utf8::Fitting(line, columns - 1));
}

std::string NodeTable::Count() const {
  std::map<NodeState, int> counts;
  for (const auto& [node, row] : rows_) ++counts[row.state];
  std::string text;
  for (const auto& [state, count] : counts)
    text += str::Format(text.empty() ? "%d %s" : ", %d %s", count, ToStr(state));
  return text;
}

}  // namespace console
