#pragma once

#include <functional>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "fleet/key_login.h"
#include "fleet/node_work.h"
#include "fleet/plan.h"
#include "pnl/file.h"

/// A new key pair for the panel on all its nodes, or on none: guarded before, proved before the
/// commit, and looked after when it had to be undone.
///
///     const pnl_file::Lock lock = fleet::LockKeys(setup);
///     fleet::EndKilledRotations(setup, {});
///     fleet::RotateKeys(setup, "", {.changed = Tell});
///
/// Whoever calls RotateKeys, EndKilledRotations or RetireKey holds LockKeys: two at once would take
/// each other's files on the nodes for leftovers.
///
/// In these functions `key_dir` is the directory on each node where the key files go, too, an
/// absolute path; "" for nowhere. It, and what the setup names, must be words that a shell reads as
/// themselves: else pnl_err::Error("rotation", "word", word), before anything is done.
namespace fleet {

/// The lock on the private key; waits for 3 seconds, then throws pnl_err::Error("lock", "timeout").
[[nodiscard]] FLEET_API pnl_file::Lock LockKeys(const KeySetup& setup);

/// What would become of each node's authorized keys, and which key files would be placed there, node
/// by node. Nothing is changed anywhere. Nodes come to the state kChecked; when one fails,
/// pnl_err::Error("copy_ssh_keys") is thrown as by RotateKeys.
[[nodiscard]] FLEET_API Plan PreviewRotation(const KeySetup& setup, const std::string& key_dir,
                                             const NodeWatch& watch);

/// Makes the pair and brings it to the nodes.
///
///   1. Every node is logged in to (kChecked), its authorized keys are read, and what an earlier
///      run left there ("FILE.old") goes out of the way ("FILE.older"): a rollback would restore
///      it.
///   2. The pair is made and distributed (kRunning, kFinished).
///   3. Every node is logged in to with the new key, on a fresh connection, and has to have every
///      old line still (kVerified).
///   4. The new pair takes its place here.
///
/// What fails (kError), or is stopped, before 4 puts everything back, which is then looked at on
/// every node (kRestored). What is killed is looked after by EndKilledRotations: what has begun
/// stands in "PRIVATE_KEY.rotation" until then.
///
/// Throws pnl_err::Error("copy_ssh_keys") with the parameters "nodes" (those that failed),
/// "message" and, when some could not be put back, "not_restored"; "key_record" where the record of
/// earlier rotations cannot be understood; what making the pair and replacing it here throw.
///
/// It works in a transaction (pnl_job) of the calling thread, which must have none open. All nodes
/// are distributed to at once, each with a few descriptors: the process has to be allowed as many.
FLEET_API void RotateKeys(const KeySetup& setup, const std::string& key_dir,
                          const NodeWatch& watch);

/// Who wants to see how killed rotations are ended; all of it may be empty, and what it throws is
/// logged. The calling thread calls it.
struct KilledRotationWatch {
  /// Work on these nodes begins: how it is to be watched. What this returns is released when the
  /// work has ended.
  std::function<NodeWatch(const std::vector<std::string>& nodes)> begin = {};
  /// A sentence about an earlier rotation, while no node is worked on.
  std::function<void(const std::string& message)> tell = {};
};

/// Ends the rotations that were killed. One whose private key is in place had been done: its public
/// key follows. Of the others the temporary key files here and the key files on nodes that had none
/// are removed; what cannot be reached is told and stays noted for the next time. Does nothing when
/// none was killed.
///
/// Throws "interrupted" when the watcher stopped it, "key_record" where the record cannot be
/// understood, and kUnusableKey when the private key is none.
FLEET_API void EndKilledRotations(const KeySetup& setup, const KilledRotationWatch& watch);

}  // namespace fleet
