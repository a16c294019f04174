#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fleet/fan.h"
#include "fleet/guarding.h"
#include "fleet/host_steps.h"
#include "fleet/journal.h"
#include "fleet/run.h"

/// The nodes of a run at work: sessions, and the commands on all nodes; for the sources of this
/// directory only.
namespace fleet {

/// A node at work.
struct CrewNode {
  RunTarget target;
  RunNode booked;
  std::vector<Draft::Check> checks = {};
  std::optional<pnl_err::Error> error = {};  ///< that of booked.reason
  /// The answer of a command was lost: it may still be at work there.
  bool lost = false;
  bool untouched = false;  ///< the node refused the command before it began
  /// How many steps may have been made; null: all.
  std::optional<std::size_t> begun = {};
  /// The edits of the steps that are planned when their turn comes (kLate), in their order.
  std::deque<Edit> late = {};
  std::string output = {};  ///< of its commands
  /// As RunMark::known, from the look that the plan was made on.
  std::optional<std::vector<std::string>> known = {};
  bool guards_at_boot = false;  ///< Sight::guards_at_boot
};

/// What steps have to keep to that are planned when their turn comes.
struct LateRules {
  std::uint64_t content_limit = UINT64_MAX;  ///< see RunOptions
  bool may_stay = false;                     ///< whether there may be one that cannot be undone
};

/// Use it from one thread.
class Crew {
 public:
  template <class Options>  // of a run, or of its recovery
  explicit Crew(const Options& options)
      : fan_(options.fan),
        max_sessions_(options.max_sessions),
        timeout_(options.timeout),
        command_limit_(options.command_limit),
        watch_(options.watch) {}

  std::vector<CrewNode> nodes;
  LateRules late_rules = {};  ///< of nodes with CrewNode::late

  using Visitor = std::function<void(CrewNode& node, pnl_host::Host& host, const Turn& turn)>;
  /// What a failed visit means; the reason is that of the error, in one line.
  using OnFailure =
      std::function<void(CrewNode& node, const pnl_err::Error& error, const std::string& reason)>;
  /// Visits these nodes. Unless `to_its_end`, the stop event ends it before a node's turn.
  Failures Visit(RunPhase phase, const std::vector<std::size_t>& which, bool to_its_end,
                 const Visitor& visitor);

  /// Makes the steps on these nodes: they become kMade or kFailed, in memory and in the books.
  void Make(Journal& journal, const RunHead& run, const std::vector<std::size_t>& which);
  /// Undoes them: kUndone, kConflict or kOwed.
  void Undo(Journal& journal, const RunHead& run, const std::vector<std::size_t>& which);
  /// Makes what nodes are behind with, and removes what the run has left there: kDone, or again kBehind.
  void CatchUp(Journal& journal, const RunHead& run, const std::vector<std::size_t>& which);
  /// Removes what the run has left: kDone, or kCommitted if a node is not reached. With `keep`, nobody is visited.
  void CleanUp(Journal& journal, const RunHead& run, const std::vector<std::size_t>& which,
               bool keep);

  /// Writes the node's steps into the books.
  void Book(Journal& journal, const RunHead& run, const CrewNode& node,
            std::vector<RunStep> steps) const;

  /// The indices of the nodes in one of these states.
  std::vector<std::size_t> In(std::initializer_list<NodeRunState> states) const;
  std::vector<NodeReport> Reports() const;

 private:
  class Session;
  pnl_host::Host HostOf(std::size_t index, const Turn& turn, bool to_its_end);
  RunMark MarkOf(const RunHead& run, const CrewNode& node) const;
  void Work(Journal& journal, const RunHead& run, RunPhase phase,
            const std::vector<std::size_t>& which, bool to_its_end, const OnFailure& on_failure,
            const Visitor& visitor);
  bool MakeUpTo(Journal& journal, CrewNode& node, pnl_host::Host& host, const RunHead& run,
                std::size_t done, const StepGroup& group) const;
  void PlanLate(Journal& journal, CrewNode& node, pnl_host::Host& host, const RunHead& run,
                std::size_t at) const;
  bool MakeAll(Journal& journal, CrewNode& node, pnl_host::Host& host, const Turn& turn,
               const RunHead& run) const;
  void MakeOn(Journal& journal, CrewNode& node, pnl_host::Host& host, const Turn& turn,
              const RunHead& run) const;
  void UndoOn(CrewNode& node, pnl_host::Host& host, const RunHead& run) const;
  void CatchUpOn(Journal& journal, CrewNode& node, pnl_host::Host& host, const Turn& turn,
                 const RunHead& run) const;

  FanOptions fan_;
  std::size_t max_sessions_;
  int timeout_;
  int command_limit_;
  RunWatch watch_;
  std::mutex guard_;
  std::map<std::size_t, pnl_rpc::SSH> sessions_;
};

/// Content above the limit is in no books: the node alone keeps it. `all`: also what is still to be made.
void KeepToLimit(std::vector<RunStep>& steps, std::uint64_t limit, bool all);
/// The first step that cannot be undone; null if there is none.
[[nodiscard]] const RunStep* FindIrreversible(const std::vector<RunStep>& steps);
/// The error about it: kIrreversible, with a message.
[[nodiscard]] pnl_err::Error Irreversible(const std::string& node, const RunStep& step);
/// Whether the node has the run's commit, or had it before it was undone.
[[nodiscard]] bool IsCommitted(const RunHead& run, const RunNode& node);
/// Whether each node of the run is committed by itself.
[[nodiscard]] bool CommitsEach(const RunHead& run);
/// How the run is guarded.
[[nodiscard]] Guarding GuardingOf(const RunHead& run);
/// UndoFromBooks for a run of the journal.
[[nodiscard]] Undone UndoBooked(pnl_host::Host& host, const RunMark& mark, const RunHead& run,
                                const std::vector<RunStep>& steps);
/// What people should know about steps that were undone in another way; "" if none was.
[[nodiscard]] std::string RemarkOf(const std::vector<RunStep>& steps, const Undone& undone);
/// The name of a run on its nodes.
[[nodiscard]] std::string NameOnNodes(const RunHead& run);
/// The reason of an error in one line, without the node's name.
[[nodiscard]] std::string ReasonOf(const pnl_err::Error& error, const std::string& node);

/// Carries the run to its end: commits, or undoes it all if there is a reason. Nodes that commit by
/// themselves stay.
[[nodiscard]] RunReport Finish(Journal& journal, RunHead& run, Crew& crew, std::string reason);
/// Undoes these nodes. When an answer of one was lost, its command may come late: the run gets a new
/// epoch first, so that the node refuses it.
void UndoNodes(Journal& journal, RunHead& run, Crew& crew, const std::vector<std::size_t>& which);
/// When all debts of a run that was ended only partly are paid, it becomes what all its nodes are.
void Settle(Journal& journal, RunHead& run);

}  // namespace fleet
