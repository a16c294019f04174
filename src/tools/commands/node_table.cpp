#include "tools/commands/node_table.h"

#include <algorithm>
#include <cstdio>

#include "brefir/guarded.h"
#include "console/terminal.h"
#include "pnl/log.h"
#include "pnl/utf8.h"

namespace tools {
namespace {

pnl_log::Module log_module("node_table");

constexpr auto kInterval = std::chrono::milliseconds(200);

template <class Report>
void Guarded(const Report& report) noexcept {
  utils::Guarded(log_module, "a state is not told", report);
}

bool AtWork(const std::string& state) {
  return state == "WAITING" || state == "RUNNING";
}

}  // namespace

NodeTable::NodeTable(Context& context, const std::vector<std::string>& nodes, News news)
    : context_(context), nodes_(nodes), news_(news) {
  for (const std::string& node : nodes_) rows_[node].since = begun_;
  // Log lines and the table would overwrite each other.
  if (console::CanDraw() && !context.values.Has("verbose") && !context.values.Has("quiet"))
    Guarded([this] { StartPainter(); });
}

NodeTable::~NodeTable() {
  End();
}

void NodeTable::Set(const std::string& node, const std::string& state,
                    const std::string& reason) noexcept {
  Guarded([&] {
    const std::lock_guard guard(mutex_);
    Row& row = rows_[node];
    row.state = state;
    row.since = Clock::now();
    if (!reason.empty()) row.reason = reason;
    if (news_ == News::kLines) context_.out.Line(ToRecord(node, row));
  });
}

void NodeTable::Print() {
  End();
  if (news_ == News::kLines && context_.out.GetFormat() == Format::kJson) return;
  std::vector<Record> records;
  for (const std::string& node : nodes_) records.push_back(ToRecord(node, rows_[node]));
  context_.out.List(records);
}

void NodeTable::End() {
  if (!painter_.joinable()) return;
  painter_.request_stop();
  painter_.join();
}

Record NodeTable::ToRecord(const std::string& node, const Row& row) const {
  return Record()
      .Add("node", node)
      .Add("state", row.state)
      .Add("ms", Milliseconds(row.since))
      .Add("reason", row.reason.empty() ? Value() : Value(row.reason));
}

std::int64_t NodeTable::Milliseconds(Clock::time_point until) const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(until - begun_).count();
}

// --- On a terminal

void NodeTable::StartPainter() {
  painter_ = std::jthread(
      [this](const std::stop_token& stop) { Guarded([&] { DrawOverAndOver(stop); }); });
}

void NodeTable::DrawOverAndOver(const std::stop_token& stop) {
  std::unique_lock lock(mutex_);
  while (!stop.stop_requested()) {
    const std::vector<std::string> lines = Lines(console::GetTerminalSize());
    lock.unlock();  // a terminal that is stopped must not stop the work
    Draw(lines);
    lock.lock();
    wake_.wait_for(lock, stop, kInterval, [] { return false; });
  }
  lock.unlock();
  Draw({});
}

/// Over what was drawn before: the cursor goes up to its first line, and all below is erased.
void NodeTable::Draw(const std::vector<std::string>& lines) {
  std::string text = drawn_ > 0 ? "\x1b[" + std::to_string(drawn_) + "A\x1b[J" : "";
  for (const std::string& line : lines) text += line + "\n";
  std::fputs(text.c_str(), stderr);
  drawn_ = lines.size();
}

/// Failed nodes first, then those at work: what does not fit on the terminal is only counted.
std::vector<std::string> NodeTable::Lines(const console::TerminalSize& size) const {
  const auto rank = [&](const std::string& node) {
    const std::string& state = rows_.at(node).state;
    if (state == "ERROR") return 0;
    return AtWork(state) ? 1 : 2;
  };
  std::vector<std::string> order = nodes_;
  const std::size_t room = std::max<std::size_t>(size.rows, 3) - 2;  // for the count and the cursor
  if (order.size() > room) {
    std::stable_sort(order.begin(), order.end(),
                     [&](const std::string& a, const std::string& b) { return rank(a) < rank(b); });
    order.resize(room);
  }
  std::vector<std::string> lines;
  lines.reserve(order.size() + 1);
  for (const std::string& node : order) lines.push_back(Line(node, size.columns));
  lines.push_back(Count());
  return lines;
}

std::string NodeTable::Line(const std::string& node, std::size_t columns) const {
  const Row& row = rows_.at(node);
  const std::int64_t time = Milliseconds(AtWork(row.state) ? Clock::now() : row.since);
  const std::string line =
      str::Format("%-24s  %-12s  %6.1f s  ", node, row.state, static_cast<double>(time) / 1000) +
      utf8::Printable(row.reason);
  return std::string(utf8::Fitting(line, columns - 1));
}

std::string NodeTable::Count() const {
  std::map<std::string, int> counts;
  for (const auto& [node, row] : rows_) ++counts[row.state];
  std::string text;
  for (const auto& [state, count] : counts)
    text += str::Format(text.empty() ? "%d %s" : ", %d %s", count, state);
  return text;
}

}  // namespace tools
