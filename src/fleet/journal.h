#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "fleet/run_step.h"
#include "pnldb/db.h"

/// The books of all runs: what was meant, done and undone, on which nodes. A run is in the journal
/// before a node is touched, and its row "commit" is the only truth about what became of it.
///
///     fleet::Journal journal(fleet::OpenFleetDatabase());
///     fleet::RunNode web1{.name = "web1", .machine = "4c5f...", .login = "root@web1"};
///     web1.steps = {{.object = "/etc/motd", .after = fleet::PathState::File("Welcome\n")}};
///     const fleet::RunHead run = journal.Begin({.command = "node write", .policy = "each"}, {web1});
///     journal.Note(run, {{"web1", fleet::NodeRunState::kMade}});
///     if (journal.Move(run, fleet::RunState::kMaking, fleet::RunState::kCommitted)) Run(web1.name);
namespace fleet {

// Types of errors, with a message.
inline constexpr const char* kRunBusy = "run_busy";    ///< an unfinished run has one of the nodes
inline constexpr const char* kTakenOver = "run_lost";  ///< another process has taken the run over
/// The database was lost while it committed, and did not come back: what was to be written is in the
/// journal or it is not.
inline constexpr const char* kRunUnknown = "run_unknown";

/// The states of a run. Unfinished are kMaking, kCommitted and kUndoing.
enum class RunState {
  kMaking,     ///< planned; steps may have been made
  kCommitted,  ///< the commit is made; nodes are still to be cleaned up
  kDone,       ///< all is made, nothing is left on the nodes
  kUndoing,    ///< it is decided that all goes back
  kUndone,     ///< all nodes are as before
  kPartly,     ///< ended, but not all nodes are as they should be: see the nodes
};

/// The states of a node in a run.
enum class NodeRunState {
  kUnchanged,  ///< nothing was to do there
  kWaiting,    ///< its turn has not come
  kMaking,     ///< its command may have begun
  kMade,       ///< all its steps are made and verified
  kCommitted,  ///< of a run that commits each node by itself
  kDone,       ///< made, committed and cleaned up
  kFailed,     ///< a step failed; it is to be undone
  kUndone,     ///< as before
  kConflict,   ///< somebody else has changed what was to be undone
  kOwed,       ///< it could not be reached for cleaning up or undoing
  kBehind,  ///< it could not be reached for planning; the run is committed, and owes it to the node
  kWrittenOff,  ///< the debt was closed by hand
};
/// Whether a run in this state is over.
[[nodiscard]] FLEET_API bool IsEnd(RunState state);
/// Whether a node in this state is free for other runs, though its own run may go on: kUnchanged,
/// kDone, kUndone, kWrittenOff.
[[nodiscard]] FLEET_API bool IsEnd(NodeRunState state);
[[nodiscard]] FLEET_API std::string ToText(RunState state);
/// For people; kBehind is "owed", too.
[[nodiscard]] FLEET_API std::string ToText(NodeRunState state);
/// Whether a node of an ended run is not as the run was to leave it; `has_reason`: RunNode::reason is
/// not empty. kFailed, kConflict, kOwed, kBehind; kUnchanged and kUndone with a reason.
[[nodiscard]] FLEET_API bool HasFailed(NodeRunState state, bool has_reason);

/// A node of a run and its steps.
struct RunNode {
  std::string name;     ///< as pnl_host::Host::Name returns it; "localhost" for this host
  std::string machine;  ///< its machine-id, whatever name it has; "": only its name is known
  std::string login;    ///< how to log in, as one line of text; no passwords and no keys
  NodeRunState state = NodeRunState::kWaiting;
  std::string reason = {};  ///< why it failed, is owed, in conflict or written off
  std::vector<RunStep> steps = {};
  std::time_t noted = 0;  ///< when it came into this state; 0: since the run began
};

struct RunHead {
  std::int64_t id = 0;
  std::string token =
      {};  ///< makes the run's name on the nodes unique among all panels: 8 hex digits
  std::string command = {};  ///< for people; no secrets
  std::string policy = {};   ///< "all-or-none", "each", "canary:N,then:M%"
  std::string key = {};      ///< KeyChange::Text of a run that changes the panel's key, else ""
  bool keep_undo = false;
  RunState state = RunState::kMaking;
  std::string host = {};  ///< of the panel, where the run began
  std::string user = {};  ///< who began it: a login name, or the number of a user without one
  std::time_t begun = 0;
  std::time_t committed = 0;  ///< 0: it never was
  std::time_t ended = 0;      ///< 0: it has not ended
  std::int64_t epoch = 1;     ///< of its owner; grows with each takeover
  // The owner: the process that works on the run.
  std::int64_t owner = 0;          ///< its pid
  std::int64_t owner_start = 0;    ///< when it began, in clock ticks since its host has booted
  std::string owner_host = {};     ///< the name of its host
  std::string owner_machine = {};  ///< the machine-id of its host
  std::string boot = {};           ///< the boot id of its host
};

struct BookedRun {
  RunHead head;
  std::vector<RunNode> nodes;
};

/// What became of a node in a command.
struct NodeOutcome {
  std::string node;
  NodeRunState state;
  std::string reason = {};
};

/// The journal. Thread-safe. All functions throw what the database throws, and pnl_err::Missed("run",
/// ID) for a run that is not there. What a run's owner writes throws kTakenOver, with object the id,
/// when the run has another epoch meanwhile; nothing is then written.
///
/// When the connection to the database is lost, Begin, Note, SetSteps, Move, TakeOver and RaiseEpoch try
/// again for about kPatience seconds; what was already written is not written twice. Then they throw the
/// database's error when nothing was written, and kRunUnknown, with object the id, when that is not
/// known: do nothing on nodes until the run was read again.
///
/// Texts for people (command, policy, reason) are stored printable, and cut after kMaxReason bytes.
/// Names, logins and steps keep every byte.
class FLEET_API Journal {
 public:
  /// Makes missing tables. When they are there, read permission is enough for reading.
  explicit Journal(std::shared_ptr<pnl_db::Cache> db);

  static constexpr int kPatience = 30;
  static constexpr std::size_t kMaxReason = 4000;

  /// Writes a new run with all nodes and steps in one transaction; fills in `id`, `token`, `host`,
  /// `user`, `begun`, `ended`, `epoch` and the owner, and returns the head. Throws kRunBusy, with
  /// object the id of the other run and value the node, when an unfinished run has a node with one of
  /// these machines, under whatever name; without machine, with the same name. Nodes in an end state
  /// do not count, on either side.
  RunHead Begin(RunHead head, const std::vector<RunNode>& nodes);

  /// Writes what became of nodes, in one transaction. Of several outcomes of a node the last one
  /// counts. Throws pnl_err::Missed("node", NAMES) when the run does not have all of them; nothing is
  /// then written.
  void Note(const RunHead& run, const std::vector<NodeOutcome>& outcomes);
  /// Replaces the steps of a node: some were planned when their turn came. Throws as Note does.
  void SetSteps(const RunHead& run, const std::string& node, const std::vector<RunStep>& steps);
  /// Moves the run to another state, and sets `committed` in kCommitted, `ended` in an end state. Of two that do it at the same
  /// time from the same state, one succeeds: returns false when the run is no longer in `from`. A run
  /// that had ended and is to go on takes its nodes again: those in kDone become kMade, and kRunBusy
  /// is thrown as by Begin.
  bool Move(const RunHead& run, RunState from, RunState to);
  /// Raises the epoch and makes this process the owner; of two processes that do it at the same time,
  /// one succeeds. Throws kRunBusy, with object the id and value the pid, when the run has not ended
  /// and its owner is alive on this host, or is on another host, where that cannot be seen; not with
  /// `force`. The owner's commands on nodes may still run: it only cannot write any more.
  RunHead TakeOver(std::int64_t id, bool force);
  /// Gives the run a new epoch, and returns it: nodes that see it refuse what its owner has sent
  /// before. Throws kTakenOver unless `run` has the epoch of its owner.
  std::int64_t RaiseEpoch(const RunHead& run);

  static constexpr std::int64_t kAll = INT64_MAX;  ///< no limit
  /// The newest first, at most so many, without nodes.
  [[nodiscard]] std::vector<RunHead> Runs(std::int64_t most = kAll) const;
  [[nodiscard]] std::vector<RunHead> Unfinished() const;  ///< the oldest first
  [[nodiscard]] std::vector<RunHead> KeyRuns() const;     ///< with RunHead::key; the oldest first
  /// Whether it has the run that nodes know by this name: its ID and token, with "-" between them.
  [[nodiscard]] bool Has(const std::string& name) const;
  /// How many nodes of a run are in which state.
  struct Counts {
    std::int64_t nodes = 0;
    std::int64_t changed = 0;  ///< they have what the run was to bring, and had not before
    std::int64_t failed = 0;   ///< see HasFailed; without those that are owed
    std::int64_t owed = 0;     ///< kOwed, kBehind; of an ended run kCommitted, too
  };
  /// Of the runs with these IDs, by ID.
  [[nodiscard]] std::map<std::int64_t, Counts> NodeCounts(
      const std::vector<std::int64_t>& runs) const;
  /// With nodes and steps, in the order in which Begin got them.
  [[nodiscard]] BookedRun Find(std::int64_t id) const;
  /// Debts of ended runs, by machine, the oldest first: nodes in state kOwed, kCommitted or kBehind, with
  /// their steps.
  struct Debt {
    std::int64_t run;
    RunNode node;
  };
  [[nodiscard]] std::vector<Debt> Debts() const;
  /// Runs that changed this node, or had begun to, the newest first, at most so many. With `path`, those
  /// with steps that changed this object or moved it away, and only these steps.
  struct Past {
    RunHead run;
    NodeRunState state;
    std::vector<RunStep> steps;
  };
  [[nodiscard]] std::vector<Past> History(const std::string& node, const std::string& path = "",
                                          std::int64_t most = kAll) const;
  /// When and by what each node was last changed: the end of the run, or its beginning while it has
  /// no end, and its command; "undo of " before it when the node is as before the run.
  struct LastChange {
    std::time_t time = 0;
    std::string what;
  };
  [[nodiscard]] std::map<std::string, LastChange> LastChanges() const;

  /// Closes the debt of a node of an ended run, or the conflict there: kWrittenOff with the reason.
  /// Returns false when there is none.
  bool WriteOff(std::int64_t id, const std::string& node, const std::string& reason);
  /// The runs that Prune would delete, and those that it would if their nodes kept no copies; the newest
  /// first.
  [[nodiscard]] std::vector<RunHead> Old(std::time_t before) const;
  /// Deletes ended runs that began before `before`, with nodes and steps; returns how many. Runs stay
  /// while a node is owed or in conflict, and while nodes keep copies for them (keep_undo). It takes
  /// many transactions, and other runs can write between them; after an error some are deleted.
  std::int64_t Prune(std::time_t before);
  /// Notes that no node keeps copies for this run any more: keep_undo becomes false.
  void DropUndo(const RunHead& run);

 private:
  std::shared_ptr<pnl_db::Cache> db_;
};

/// Writes outcomes of many nodes together: each transaction has all that came since the last one.
/// Thread-safe. The journal must outlive it.
class FLEET_API OutcomeWriter {
 public:
  OutcomeWriter(Journal& journal, RunHead run);  ///< throws "thread" when no thread is to be had
  OutcomeWriter(const OutcomeWriter&) = delete;
  OutcomeWriter& operator=(const OutcomeWriter&) = delete;
  ~OutcomeWriter();  ///< writes the rest; errors are logged

  void Add(NodeOutcome outcome);  ///< returns at once
  /// Waits until all is durable. Throws the first error of a transaction since the last call; what it
  /// had to write is then tried again with all that comes later.
  void Flush();

 private:
  class FLEET_LOCAL Queue;
  std::unique_ptr<Queue> queue_;
};

}  // namespace fleet
