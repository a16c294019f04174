#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "console/interrupt.h"
#include "console/node_table.h"
#include "fleet/fan.h"
#include "fleet/run.h"
#include "pnl/thread.h"
#include "tools/frame/context.h"

/// For verbs that begin runs or end them: what is seen during the work, and what is told afterwards.
///
///      RunScreen screen(context, names);
///      fleet::Run run(&journal, targets, {.fan = screen.Fan(), .watch = screen.Watch()});
///      run.Plan(edits);
///      const fleet::RunReport report = run.Make();
///      screen.End();
///      TellFailures(context, report);
///      context.out.List(RunRecords(report));
///      return RunCode(report, fleet::RunState::kDone, screen.Interrupted());
namespace tools {

/// Draws the nodes on a terminal. The first interruption stops the run: commands that have begun on
/// nodes come to their end, and what was made is undone. The second ends the program; 'brefirctl run
/// resume' then ends the run. Only one of these objects may exist at a time, on the main thread.
class RunScreen {
 public:
  RunScreen(Context& context, const std::vector<std::string>& nodes, bool draws = true);

  /// Forks, deadlines (if the verb has these options) and the event of the interruption.
  [[nodiscard]] fleet::FanOptions Fan() const;
  /// Seconds that a node may be without a sign of life: --timeout, or 60.
  [[nodiscard]] int Timeout() const;
  /// The setting max_sessions, or what the limit of descriptors allows; raises that limit.
  [[nodiscard]] std::size_t MaxSessions() const;
  /// Refers to this object.
  [[nodiscard]] fleet::RunWatch Watch();
  [[nodiscard]] bool Interrupted() const { return stop_->Raised(); }
  /// Ends the drawing, and tells which debts of earlier runs were paid.
  void End();

 private:
  void Ended(std::size_t node, const std::string& failure);

  Context& context_;
  const std::vector<std::string> nodes_;
  const std::shared_ptr<pnl_thread::Event> stop_ = std::make_shared<pnl_thread::Event>();
  const console::StoppedByInterruption interruption_{*stop_};
  console::NodeTable table_;
  std::atomic<fleet::RunPhase> phase_ = fleet::RunPhase::kPlan;
  std::vector<std::string> reasons_ = std::vector<std::string>(nodes_.size());  // of failures
  std::mutex mutex_;                                                            // guards paid_
  std::vector<std::string> paid_;
};

/// A record a node: node, state, changed, run, and error if there is a reason.
[[nodiscard]] std::vector<Record> RunRecords(const fleet::RunReport& report);
[[nodiscard]] std::vector<Field> RunRecordFields();

/// The reason of the node's state for people, without its name; "" if there is none.
[[nodiscard]] std::string ReasonText(const fleet::NodeReport& node);

/// Prints a line for each reason, with the names of its nodes.
void TellReasons(Context& context, const std::vector<std::string>& nodes,
                 const std::vector<std::string>& reasons);
/// The same for a run; and why all was undone, and what to do about debts and conflicts.
void TellFailures(Context& context, const fleet::RunReport& report);

/// "run 17 is done: 12 done, 3 unchanged".
[[nodiscard]] std::string Summary(const fleet::RunReport& report);

/// What people see of a node, by its index in the report; "": its state.
using NodeWords = std::function<std::string(std::size_t node)>;
/// Prints what became of the nodes: for people a line for each state, or for what `words` says, and
/// the rest as TellFailures and Summary; for programs the records. Stores the nodes that failed as
/// "@failed".
void TellRuns(Context& context, const std::vector<fleet::RunReport>& reports,
              const NodeWords& words = {});
/// Prints that there was nothing to do: people see the sentence, programs an empty list. Returns kDone.
[[nodiscard]] int TellNothing(Context& context, const std::string& sentence);

/// kDone if all nodes are as they should be: all have the new state for kDone, all have the old one
/// for kUndone. Otherwise kInterrupted if the user has interrupted it, else kFailed.
[[nodiscard]] int RunCode(const fleet::RunReport& report, fleet::RunState wanted,
                          bool interrupted = false);

/// Stores these nodes as "@failed"; that it cannot be done is only a warning.
void KeepFailed(Context& context, const std::vector<std::string>& nodes);

}  // namespace tools
