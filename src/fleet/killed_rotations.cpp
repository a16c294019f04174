#include <algorithm>
#include <atomic>

#include "brefir/guarded.h"
#include "brefir/ssh_utils.h"
#include "brefir/sshkey_generate.h"
#include "fleet/authorized_keys.h"
#include "fleet/errors.h"
#include "fleet/rotation_record.h"
#include "fleet/ssh_rotation.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/str.h"

namespace fleet {
namespace {

namespace file = ssh_utils::file;

pnl_log::Module log_module("killed_rotations");

constexpr const char* kWatcherFailed = "a watcher of killed rotations failed";

void Tell(const KilledRotationWatch& watch, const KeySetup& setup, const std::string& message) {
  utils::Guarded(log_module, kWatcherFailed, [&] {
    if (watch.tell) watch.tell("an earlier rotation of '" + setup.private_key + "' " + message);
  });
}

NodeWatch Begin(const KilledRotationWatch& watch, const std::vector<std::string>& nodes) {
  NodeWatch begun;
  utils::Guarded(log_module, kWatcherFailed, [&] {
    if (watch.begin) begun = watch.begin(nodes);
  });
  return begun;
}

bool Holds(const std::string& text, const std::string& public_key) {
  return KeyOf(text) == public_key || PublicHalfOf(text) == public_key;
}

/// How many there were.
int RemoveKeyFiles(pnl_rpc::SSH ssh, const BegunRotation& rotation, const std::string& node) {
  int count = 0;
  for (const std::string& path : rotation.missing.at(node)) {
    if (!file::Exists(ssh, path, "f") ||
        !Holds(NodeText(ssh, path, ssh_gen::kMaxAuthorizedKeys), rotation.public_key))
      continue;
    file::Remove(ssh, path);
    ++count;
  }
  return count;
}

/// Keeps the files on nodes that could not be reached. False when a callback stopped it.
bool RemoveKeyFiles(const KilledRotationWatch& watch, const KeySetup& setup,
                    BegunRotation& rotation) {
  std::vector<std::string> nodes;
  for (const auto& [node, paths] : rotation.missing) nodes.push_back(node);
  NodeWork work(nodes, Begin(watch, nodes));
  std::atomic<int> removed = 0;
  work.Visit([&](const std::string& node) {
    removed += RemoveKeyFiles(LogIn(setup, node, setup.private_key), rotation, node);
    return NodeState::kRestored;
  });
  std::erase_if(rotation.missing, [&](const auto& entry) { return !work.Failed(entry.first); });
  Tell(
      watch, setup,
      str::Format("did not finish; its new key on this host and %d key files on nodes were removed",
                  removed.load()));
  if (work.Failed())
    Tell(watch, setup,
         "may have left key files on nodes; the next rotation tries these again: " +
             work.Failures(nodes.size()));
  return !work.Stopped();
}

/// False when a callback stopped it.
bool End(const KilledRotationWatch& watch, const KeySetup& setup, const std::string& present,
         BegunRotation& rotation) {
  const std::string temporary_public_key = rotation.temporary_key + ssh_gen::kPublic;
  if (rotation.public_key == present) {
    rotation.missing.clear();
    if (pnl_file::Exists(temporary_public_key))
      pnl_file::Move(temporary_public_key, setup.public_key);
    Tell(watch, setup, "was killed after it had finished; its key is in use");
    return true;
  }
  pnl_file::RemoveFile(rotation.temporary_key);
  pnl_file::RemoveFile(temporary_public_key);
  return RemoveKeyFiles(watch, setup, rotation);
}

}  // namespace

void EndKilledRotations(const KeySetup& setup, const KilledRotationWatch& watch) {
  std::vector<BegunRotation> rotations = ReadRotations(setup.private_key);
  if (rotations.empty()) return;
  const std::string present = PublicHalf(setup.private_key);
  const bool ended = std::all_of(rotations.begin(), rotations.end(), [&](BegunRotation& rotation) {
    return End(watch, setup, present, rotation);
  });
  if (!ended) throw pnl_err::Error("interrupted");
  std::erase_if(rotations, [](const BegunRotation& rotation) { return rotation.missing.empty(); });
  WriteRotations(setup.private_key, rotations);
}

}  // namespace fleet
