#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/key_nodes.h"

/// What a rotation of keys has begun stands in "<private key>.rotation" until it is done or undone:
/// one that was killed in between is looked after by the next. Whoever calls these holds the lock
/// on the private key.
namespace tools {

struct BegunRotation {
  using Files = std::map<std::string, std::vector<std::string>>;  ///< paths by node

  std::string temporary_key;  ///< where its private key lies here; its public half has ".pub" added
  std::string public_key;     ///< as KeyOf gives it
  Files missing;              ///< key files that nodes did not have
};

/// Notes a rotation that is about to touch the nodes.
void NoteRotation(const std::string& private_key, const BegunRotation& begun);
/// Forgets the last one noted, but for the files that are `owed`. A failure is logged: the next
/// rotation finds what is left.
void ForgetRotation(const std::string& private_key, const BegunRotation::Files& owed);

/// Ends the rotations that were killed, and says so on standard error. One whose private key is in
/// place had been done: its public key follows. Of the others the temporary key files here and the
/// key files on nodes that had none are removed; what cannot be reached is told and stays noted.
/// Throws "interrupted", and "key_record" where the record cannot be understood.
void EndKilledRotations(Context& context, const KeySetup& setup);

}  // namespace tools
