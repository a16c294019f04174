#pragma once

#include <cstdint>
#include <string>

#include "fleet/export.h"
#include "pnl/file.h"

/// The panel's key pair on this host while a run replaces it. At every moment a complete pair is there
/// that all nodes of the run accept.
///
///     const fleet::KeyChange key = fleet::MakeNextPair(
///         {.private_key = "/opt/panel/etc/panel.key", .public_key = "/opt/panel/etc/panel.key.pub"},
///         fleet::KeyType::kEd25519);
///     // ... the nodes get the line key.added, and the run is committed ...
///     fleet::PutInPlace(key, 17);
///
/// Files are written beside the old ones, synced, and renamed. Every function can be repeated after it was
/// killed. Hold LockKey to call one that changes something. They throw what the functions of pnl/file.h
/// throw.
namespace fleet {

/// The lock on a private key, for whatever changes the pair or the nodes that accept it. Waits for 3 seconds,
/// then throws pnl_err::Error("lock", "timeout"). ResumeRun and UndoRun take it themselves.
[[nodiscard]] FLEET_API pnl_file::Lock LockKey(const std::string& private_key);

enum class KeyType { kEd25519, kRsa, kEcdsa };

/// What a run does with the panel's key.
struct FLEET_API KeyChange {
  std::string
      private_key;  ///< absolute path of the private key that the panel logs in with; no link
  std::string public_key;    ///< the same of its public half
  std::string added = {};    ///< line of authorized_keys files of the key that is new; "": none is
  std::string retired = {};  ///< the key whose lines are removed, in the form of KeyOf; "": none
  std::string machine = {};  ///< machine-id of the host that has these files

  /// As one line of ASCII, for the books; no private key is in it.
  [[nodiscard]] std::string Text() const;
  /// The change of such a line; nothing of it is set for "".
  [[nodiscard]] static KeyChange Read(const std::string& text);
};

/// The private key of a new pair until it is in place; its public half has ".pub" behind it.
[[nodiscard]] FLEET_API std::string NextKey(const KeyChange& key);
/// The private key that a run has replaced; its public half has ".pub" behind it.
[[nodiscard]] FLEET_API std::string KeptKey(const KeyChange& key, std::int64_t run);

/// Makes a pair as NextKey, in place of one that is there. Its comment has the name of this host and the
/// date. Owner and mode are those of the present private key, but for the others, who must not read it.
/// Returns the change with `added` and `machine`. Throws pnl_err::Error("ssh_keygen", PATH), with a message,
/// if ssh-keygen(1) fails.
[[nodiscard]] FLEET_API KeyChange MakeNextPair(KeyChange key, KeyType type);
/// Removes it.
FLEET_API void DropNextPair(const KeyChange& key);

/// Which file has the new private key now.
[[nodiscard]] FLEET_API std::string FileOfNewKey(const KeyChange& key);
/// Copies the old pair to KeptKey, then renames the new one over it. Does nothing if that is done. Throws
/// pnl_err::Error("key_pair", PATH), with a message, if neither pair is the new one.
FLEET_API void PutInPlace(const KeyChange& key, std::int64_t run);
/// Puts the old pair back, and removes the new one. Does nothing if that is done.
FLEET_API void PutBack(const KeyChange& key, std::int64_t run);

/// The machine-id of this host; "" if it has none.
[[nodiscard]] FLEET_API std::string OwnMachine();

}  // namespace fleet
