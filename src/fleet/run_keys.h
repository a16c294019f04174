#pragma once

#include "fleet/key_pair.h"
#include "fleet/run_crew.h"

/// Runs that change the panel's key; for the sources of this directory only.
namespace fleet {

/// Whether the run adds a key.
[[nodiscard]] bool AddsKey(const RunHead& run);
/// The lock on the run's key; none if it changes none. Throws kRunBusy, with a message, if another host has
/// the key.
[[nodiscard]] pnl_file::Lock LockKeyOf(const RunHead& run);

/// How to prove a node of the run by a fresh login: with the new key, if it adds one. So do jump hosts that
/// are logged in to with the same key, unless they are nodes of the run, which are proved themselves.
[[nodiscard]] pnl_rpc::SshOptions LoginOfProof(const Crew& crew, const CrewNode& node,
                                               const RunHead& run);

/// The step of a node that is behind: it is planned when the node is reached.
[[nodiscard]] RunStep StepOfNewKey(const KeyChange& key, const pnl_rpc::SshOptions& login);
/// Whether nothing of the run can be on a node that is behind.
[[nodiscard]] bool IsUnplanned(const RunNode& node);

/// Before a run that has replaced the key is undone: no node that has the new key may refuse the old one,
/// and nobody may have replaced the new one here. Otherwise throws kRunBusy, with a message.
void RequireOldKey(const Journal& journal, const RunHead& run, Crew& crew);

}  // namespace fleet
