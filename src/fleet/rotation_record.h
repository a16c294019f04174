#pragma once

#include <map>
#include <string>
#include <vector>

/// What a rotation of keys has begun stands in "<private key>.rotation" until it is done or undone:
/// one that was killed in between is looked after by the next. Whoever calls these holds the lock
/// on the private key.
namespace fleet {

struct BegunRotation {
  using Files = std::map<std::string, std::vector<std::string>>;  ///< paths by node

  std::string temporary_key;  ///< where its private key lies here; its public half has ".pub" added
  std::string public_key;     ///< as KeyOf gives it
  Files missing;              ///< key files that nodes did not have
};

/// Throws pnl_err::Error("key_record", "line", path) for a line that no rotation has written.
[[nodiscard]] std::vector<BegunRotation> ReadRotations(const std::string& private_key);
void WriteRotations(const std::string& private_key, const std::vector<BegunRotation>& rotations);

/// Notes a rotation that is about to touch the nodes.
void NoteRotation(const std::string& private_key, const BegunRotation& begun);
/// Forgets the last one noted, but for the files that are `owed`. A failure is logged: the next
/// rotation finds what is left.
void ForgetRotation(const std::string& private_key, const BegunRotation::Files& owed);

}  // namespace fleet
