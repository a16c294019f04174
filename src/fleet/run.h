#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fleet/draft.h"
#include "fleet/export.h"
#include "fleet/fan.h"
#include "fleet/journal.h"
#include "fleet/key_pair.h"
#include "pnl/ssh.h"

/// Changes of many nodes as one transaction: all nodes have the new state, or all have the old one.
///
///     fleet::Journal journal(fleet::OpenFleetDatabase());
///     fleet::Run run(&journal, {{"web1", login1}, {"web2", login2}}, {.command = "the greeting"});
///     run.Plan({{.look = [](fleet::Looks& looks) { looks.files.insert("/etc/motd"); },
///                .make = [](fleet::Draft& draft) { draft.Write("/etc/motd", "Welcome\n"); }}});
///     if (run.Changes() && run.Failed() == 0) Show(run.Make().reason);
///
/// A run is in the journal before a node is touched. When this process is killed, ResumeRun or UndoRun
/// of another one ends it.
namespace fleet {

/// The type of the error about a step that cannot be undone.
inline constexpr const char* kIrreversible = "irreversible";

/// How many nodes may fail, and which nodes are made together.
struct FLEET_API RunPolicy {
  /// Each node is committed by itself; a node that fails is undone alone.
  bool each = false;
  std::size_t canary = 0;          ///< so many nodes are made first; 0: none
  std::size_t then_percent = 100;  ///< of all nodes, in each wave after them
  std::size_t serial = 0;          ///< nodes in each wave; 0: all together
  /// Up to so many nodes may fail: they are undone alone. With one more, all are undone.
  std::size_t max_failed = 0;
  /// Seconds after which a node puts back what can lock the panel out (with `guard_all`: everything),
  /// unless a fresh login works; 0: never.
  int guard = 0;
  bool guard_all = false;
  /// Whether nobody has asked for a policy. A run with a step that cannot be undone is then `each`.
  bool is_default = false;

  /// "all-or-none", "each", "canary:2,then:25%", "serial:5"; with ",max-failed:K", ",guard:S" and
  /// ",guard-all:S".
  [[nodiscard]] std::string Text() const;
  /// Throws pnl_err::Error("policy", "read", TEXT), with a message, for another text.
  [[nodiscard]] static RunPolicy Read(const std::string& text);
  /// How many nodes each wave has.
  [[nodiscard]] std::vector<std::size_t> Waves(std::size_t nodes) const;
};

/// A node of a run.
struct RunTarget {
  std::string name;                               ///< for people, and in the journal
  std::optional<pnl_rpc::SshOptions> login = {};  ///< null: this host
};

enum class RunPhase { kPlan, kMake, kCommit, kUndo, kCleanUp };

/// What is called while a run is at work, from several threads at the same time. They must not throw.
struct RunWatch {
  std::function<void(RunPhase phase, std::size_t nodes)> phase = {};
  std::function<void(std::size_t node)> begun = {};
  std::function<void(std::size_t node, const std::string& failure)> ended = {};
  /// A debt of an earlier run was paid on that node.
  std::function<void(std::size_t node, std::int64_t run)> paid = {};
};

inline constexpr int kGuardSeconds = 60;  ///< the default

struct RunOptions {
  std::string command = {};  ///< for people; no secrets
  /// Its guard counts only where steps can lock the panel out, or with guard_all. A policy of your own has
  /// only the guard that you give it.
  RunPolicy policy = {.guard = kGuardSeconds};
  /// Allows steps that cannot be undone with other policies than `each`.
  bool irreversible = false;
  bool keep_undo = false;  ///< the nodes keep the old content until the run is pruned or undone
  /// Larger content is not in the journal; bytes.
  std::uint64_t content_limit = std::uint64_t{1} << 20;
  /// Its stop event lets running commands end, then all is undone.
  FanOptions fan = {};
  std::size_t max_sessions = 512;  ///< that stay open between the phases
  int timeout = 60;                ///< seconds that a node may be without a sign of life, 1 or more
  int command_limit = 1800;        ///< see RunMark
  RunWatch watch = {};
  /// For a run that changes the panel's key: every node is proved by a fresh login with the new key (or the
  /// present one, if none is added), whatever the guard is. The new pair (MakeNextPair) is put in place
  /// right after the commit.
  std::optional<KeyChange> key = {};
  /// With `key`: up to so many nodes that cannot be reached for planning are owed the new key (kBehind). The
  /// run is committed without them, ResumeRun pays.
  std::size_t allow_owed = 0;
  /// Called when all is made; a reason that it returns undoes all. A run that another process carries
  /// to its end is committed without it.
  std::function<std::string()> before_commit = {};
};

/// What became of a node.
struct NodeReport {
  std::string name;
  NodeRunState state = NodeRunState::kUnchanged;
  std::string reason = {};
  std::optional<pnl_err::Error> error = {};  ///< that of the reason, if this process saw it
  /// Whether the node has what the run was to bring, and had not before.
  bool changed = false;
  std::string output = {};  ///< of the commands of its steps, if this process ran them
};

struct FLEET_API RunReport {
  std::int64_t id = 0;  ///< 0: nothing was to do, or nothing was begun
  RunState state = RunState::kDone;
  std::vector<NodeReport> nodes;
  std::string reason = {};  ///< why all was undone; "" if it was not

  /// Whether all nodes are as they should be after Make or Resume.
  [[nodiscard]] bool Good() const;
};

/// Use it from one thread.
class FLEET_API Run {
 public:
  /// `journal` must outlive the run. Without one it can only plan, and pays no debts.
  Run(Journal* journal, std::vector<RunTarget> targets, RunOptions options);
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  ~Run();  ///< closes the sessions

  /// Looks at all nodes and plans; no node is changed. `edits` may differ from node to node: it is
  /// called with the index of the target, from several threads. Debts of earlier runs are paid first.
  /// An edit that misses something (kIsMissing) which an earlier one may bring becomes a kLate step: it
  /// is looked at and planned when its turn comes, and fails the node if it cannot be made then.
  void Plan(const std::function<std::vector<Edit>(std::size_t target)>& edits);
  void Plan(const std::vector<Edit>& edits);  ///< the same edits for all

  /// Checks that the nodes are as they were when these steps were planned, and takes them instead of
  /// planning. A node that already is as the steps leave it has nothing to do; what a command does
  /// cannot be compared, and is always to do. Any other fails, and so does another machine. `late` returns the edit for a kLate step.
  void PlanAsSaved(const std::vector<std::vector<RunStep>>& steps,
                   const std::vector<std::string>& machines,
                   const std::function<Edit(std::size_t target, const RunStep& step)>& late = {});

  // After planning.

  const std::vector<RunTarget>& Targets() const;
  const std::vector<RunStep>& Steps(std::size_t target) const;
  const std::string& Machine(std::size_t target) const;
  /// Why the node could not be planned; null if it could.
  const std::optional<pnl_err::Error>& Failure(std::size_t target) const;
  std::size_t Failed() const;  ///< how many nodes could not be planned
  bool Changes() const;        ///< whether any node has something to do
  /// What people should know of the guard of this target, in lines; "" if nothing.
  std::string GuardNote(std::size_t target) const;
  /// The message of kIrreversible for the first step that cannot be undone; "" if there is none.
  std::string Irreversible() const;

  /// Writes the books and makes the steps; commits, or undoes what was made. Nodes that could not be
  /// planned count as failed. Does nothing where nothing is to do. Throws kIrreversible, with a message,
  /// before anything is done, when a step cannot be undone and neither the policy nor
  /// RunOptions::irreversible allows that; and the journal's errors: the run then stays as it is, for
  /// ResumeRun and UndoRun.
  RunReport Make();

 private:
  class FLEET_LOCAL Work;
  std::unique_ptr<Work> work_;
};

/// How a booked node is logged in to; null: as the books say.
using LoginOf = std::function<pnl_rpc::SshOptions(const RunNode& node, pnl_rpc::SshOptions booked)>;

struct RecoverOptions {
  bool take_over = false;  ///< also when the run's owner is alive, or on another host
  LoginOf login = {};
  FanOptions fan = {};
  std::size_t max_sessions = 512;
  int timeout = 60;          ///< as in RunOptions
  int command_limit = 1800;  ///< see RunMark
  RunWatch watch = {};
};

/// Carries an unfinished run to its end, and pays its debts. One that cannot be carried on is undone.
/// Of a run that has ended, it undoes what was owed or in conflict, and makes what nodes are behind with.
/// Throws the journal's errors; for a run that changes the panel's key, also those of LockKey and
/// PutInPlace, and kRunBusy, with a message, on another host than the one that has the key.
FLEET_API RunReport ResumeRun(Journal& journal, std::int64_t id, const RecoverOptions& options);
/// Undoes a run, whatever its state is. Throws as ResumeRun does; and kRunBusy, with a message, before
/// anything is done, if the run has added a key of the panel and a node does not accept the one before it.
FLEET_API RunReport UndoRun(Journal& journal, std::int64_t id, const RecoverOptions& options);

/// Removes what nodes keep for undoing an ended run (RunOptions::keep_undo), so that Journal::Prune
/// deletes it. A node that is not reached owes that from now on: kCommitted, with a reason. Throws
/// kRunBusy for an unfinished run, and the journal's errors.
FLEET_API RunReport DropUndo(Journal& journal, std::int64_t id, const RecoverOptions& options);
/// The runs of the journal by their names on nodes (Sight::runs).
[[nodiscard]] FLEET_API std::map<std::string, std::int64_t> NamesOnNodes(const Journal& journal);

/// A login as one line of text for the books, without passwords; and back.
[[nodiscard]] FLEET_API std::string LoginText(const std::optional<pnl_rpc::SshOptions>& login);
[[nodiscard]] FLEET_API std::optional<pnl_rpc::SshOptions> ReadLogin(const std::string& text);

}  // namespace fleet
