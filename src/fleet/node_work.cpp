#include "fleet/node_work.h"

#include <exception>
#include <utility>

#include "brefir/guarded.h"
#include "fleet/workers.h"
#include "pnl/str.h"

namespace fleet {
namespace {

pnl_log::Module log_module("node_work");

constexpr std::size_t kVisitors = 16;  // sessions at a time
constexpr const char* kWatcherFailed = "a watcher of the nodes failed";

}  // namespace

const char* ToStr(NodeState state) {
  constexpr const char* kTexts[] = {"WAITING",  "CHECKED",  "RUNNING", "FINISHED",
                                    "VERIFIED", "RESTORED", "ERROR"};
  return kTexts[static_cast<std::size_t>(state)];
}

NodeWork::NodeWork(const std::vector<std::string>& nodes, NodeWatch watch)
    : nodes_(nodes), watch_(std::move(watch)) {}

NodeWork::~NodeWork() = default;

void NodeWork::Visit(const Visitor& visit) {
  OnThreads(nodes_.size(), kVisitors, [&](std::size_t n) { VisitOne(nodes_[n], visit); });
}

void NodeWork::VisitOne(const std::string& node, const Visitor& visit) noexcept {
  if (Stopped()) return Fail(node, "interrupted");
  try {
    Set(node, visit(node));
  } catch (const pnl_err::Error& error) {
    Fail(node, Reason(error));
  } catch (const std::exception& error) {
    Fail(node, error.what());
  }
}

void NodeWork::Set(const std::string& node, NodeState state) noexcept {
  Tell(node, state, "");
}

void NodeWork::Fail(const std::string& node, const std::string& reason) noexcept {
  some_failed_ = true;  // even if the report fails
  Tell(node, NodeState::kError, reason);
  try {
    const std::lock_guard guard(mutex_);
    failed_.emplace(node, reason);
  } catch (const std::exception&) {  // out of memory: only the text is lost
  }
}

void NodeWork::Tell(const std::string& node, NodeState state,
                    const std::string& reason) const noexcept {
  utils::Guarded(log_module, kWatcherFailed, [&] {
    if (watch_.changed) watch_.changed(node, state, reason);
  });
}

std::string NodeWork::Reason(const pnl_err::Error& error) const noexcept {
  std::string reason = error.what();
  utils::Guarded(log_module, kWatcherFailed, [&] {
    if (watch_.reason) reason = watch_.reason(error);
  });
  return reason;
}

bool NodeWork::Stopped() const noexcept {
  bool stopped = false;
  if (!unstoppable_)
    utils::Guarded(log_module, kWatcherFailed, [&] { stopped = watch_.stop && watch_.stop(); });
  return stopped;
}

bool NodeWork::Failed(const std::string& node) const {
  return failed_.contains(node);
}

void NodeWork::Restart() {
  some_failed_ = false;
  failed_.clear();
  unstoppable_ = true;
}

std::string NodeWork::Failures(std::size_t told) const {
  if (failed_.empty()) return "";
  std::string text = str::Format("%zu of %zu nodes failed: ", failed_.size(), nodes_.size());
  std::size_t count = 0;
  for (const auto& [node, reason] : failed_) {
    if (count == told) break;
    text += str::Format(count++ > 0 ? ", %s (%s)" : "%s (%s)", node, reason);
  }
  if (count < failed_.size()) text += ", ...";
  return text;
}

std::string NodeWork::FailedNodes() const {
  std::string names;
  for (const auto& [node, reason] : failed_) names = str::Append(names, node, ",");
  return names;
}

}  // namespace fleet
