#pragma once

#include <functional>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "fleet/key_login.h"
#include "fleet/key_pair.h"
#include "fleet/node_work.h"
#include "fleet/plan.h"

/// Rotates the panel's key pair by ssh(1), for panels whose nodes are reached by its configuration only;
/// see rotation.h for all others. The nodes are checked before the change, the new key is tested before the
/// commit, and a rollback is checked afterwards.
///
///     const pnl_file::Lock lock = fleet::LockKey(setup.private_key);
///     fleet::EndKilledRotations(setup, {});
///     fleet::RotateKeys(setup, "", {.changed = Tell});
///
/// Hold LockKey to call RotateKeys or EndKilledRotations: two at the same time would take each
/// other's files on the nodes for leftovers.
///
/// `key_dir` is the absolute path of a directory on each node to which the key files are copied
/// too; "" means that they are not. `key_dir` and the texts of the setup must be plain shell words:
/// otherwise pnl_err::Error("rotation", "word", word) is thrown before anything is done.
namespace fleet {

/// The changes of each node's authorized keys, and the key files that would be copied there.
/// Nothing is changed. Nodes reach the state kChecked. When a node fails, throws
/// pnl_err::Error("copy_ssh_keys") as RotateKeys does.
[[nodiscard]] FLEET_API Plan PreviewRotation(const KeySetup& setup, const std::string& key_dir,
                                             const NodeWatch& watch);

/// Makes the pair and distributes it to the nodes.
///
///   1. Every node is logged in to (kChecked) and its authorized keys are read. A "FILE.old" of an
///      earlier run is renamed to "FILE.older" there: a rollback would restore it.
///   2. The pair is made and distributed (kRunning, kFinished).
///   3. Every node is logged in to with the new key, on a new connection, and its file must still
///      have every old line (kVerified).
///   4. The new pair replaces the old one on this host.
///
/// A failure (kError) or a stop before step 4 restores everything; then every node is checked
/// (kRestored). When the process is killed, EndKilledRotations cleans up: the file
/// "PRIVATE_KEY.rotation" records a running rotation.
///
/// Throws pnl_err::Error("copy_ssh_keys") with the parameters "nodes" (the failed nodes), "message"
/// and, when nodes could not be restored, "not_restored". Throws "key_record" when the record of
/// earlier rotations cannot be parsed, and what making and replacing the pair throw.
///
/// It uses a transaction (pnl_job) of the calling thread, which must have none open. It works on
/// all nodes at the same time, with a few descriptors each: the process's limit must be high
/// enough.
FLEET_API void RotateKeys(const KeySetup& setup, const std::string& key_dir,
                          const NodeWatch& watch);

/// Callbacks to watch the cleaning up; each may be empty. The calling thread calls them. What they
/// throw is logged.
struct KilledRotationWatch {
  /// Called when work on these nodes begins; returns the callbacks for it. They are destroyed when
  /// the work has ended.
  std::function<NodeWatch(const std::vector<std::string>& nodes)> begin = {};
  /// Called with a sentence about an earlier rotation, while no work on nodes is running.
  std::function<void(const std::string& message)> tell = {};
};

/// Cleans up after killed rotations. When the private key of a rotation is already in place, the
/// rotation is completed with its public key. For the others, the temporary key files here are
/// removed, and so are the key files on nodes that had none before. Files on nodes that cannot be
/// reached are reported and stay recorded for the next call. Does nothing when no rotation was
/// killed.
///
/// Throws "interrupted" when a callback stopped it, "key_record" when the record cannot be parsed,
/// and kUnusableKey when the private key cannot be used.
FLEET_API void EndKilledRotations(const KeySetup& setup, const KilledRotationWatch& watch);

}  // namespace fleet
