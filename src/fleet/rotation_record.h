#pragma once

#include <map>
#include <string>
#include <vector>

/// The record of running key rotations, "<private key>.rotation". After a rotation was killed, the
/// next one uses the record to clean up. The callers hold the lock on the private key.
namespace fleet {

struct BegunRotation {
  using Files = std::map<std::string, std::vector<std::string>>;  ///< paths by node

  std::string
      temporary_key;  ///< path of its private key on this host; the public half has ".pub" added
  std::string public_key;  ///< in the form of KeyOf
  Files missing;           ///< key files that did not exist on the nodes
};

/// Throws pnl_err::Error("key_record", "line", path) for an invalid line.
[[nodiscard]] std::vector<BegunRotation> ReadRotations(const std::string& private_key);
void WriteRotations(const std::string& private_key, const std::vector<BegunRotation>& rotations);

/// Records a rotation; called before it changes the nodes.
void NoteRotation(const std::string& private_key, const BegunRotation& begun);
/// Removes the last recorded rotation, except the files in `owed`, which are still to be removed. A
/// failure is logged: the next rotation cleans up.
void ForgetRotation(const std::string& private_key, const BegunRotation::Files& owed);

}  // namespace fleet
