#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brefir/sshkey_generate.h"
#include "fleet/export.h"
#include "pnl/host.h"
#include "pnl/str.h"

/// Which SSH keys the users of hosts accept, whose these are, and when somebody last logged in with them.
///
///     std::vector<fleet::KeyAudit> audits;
///     audits.push_back(fleet::AskKeys(host));
///     fleet::CompleteAudits(audits, fleet::KnownKeys(text, "etc/known_keys"));
///     for (const fleet::AcceptedKey& key : audits[0].keys)
///       if (!key.whose) Report(key.user, key.fingerprint, key.comment);
///
/// All functions are thread-safe.
namespace fleet {

/// A line with a key in a file of authorized keys.
struct AcceptedKey {
  std::string user;     ///< who can be logged in to with this key
  std::string file;     ///< absolute path on the host
  int line = 0;         ///< from 1
  std::string key;      ///< in the form of KeyOf
  std::string options;  ///< "from=\"10.0.0.1\",no-pty"
  std::string comment;  ///< as it is there; it proves nothing

  // CompleteAudits sets these.
  std::string fingerprint = {};               ///< "SHA256:..."; "" if this is no valid key
  std::optional<std::string> whose = {};      ///< null: nobody knows
  std::optional<std::time_t> last_seen = {};  ///< the last known login of the user with this key
  std::string from = {};                      ///< the address from which that came
};

/// A file whose keys are not known.
struct UnreadKeys {
  std::string user;
  std::string file;
  std::string reason;  ///< "'/home/joe/.ssh/authorized_keys' of joe cannot be read"
};

/// A login that a log of the host tells of.
struct KeyLogin {
  std::string user;
  std::string fingerprint;  ///< "SHA256:..."; of a certificate, that of the key that has signed it
  std::time_t time = 0;
  std::string from;  ///< address
};

/// What a host has told.
struct FLEET_API KeyAudit {
  std::vector<AcceptedKey> keys;
  std::vector<UnreadKeys> unread;
  /// Sentences about what else decides who may log in there, and about lines that are no keys.
  std::vector<std::string> notes;
  std::vector<KeyLogin> logins;
};

/// The most that is read of one file; bytes.
inline constexpr std::size_t kMaxKeyFile = ssh_gen::kMaxAuthorizedKeys;
/// The command ends within this time if the host has a timeout(1) with the option -s; seconds.
inline constexpr int kKeyAuditTime = 120;

/// Asks for the keys of all users by one command. Which files these are is what sshd there says
/// (AuthorizedKeysFile, sshd_config(5), also in blocks for users and groups), or else
/// .ssh/authorized_keys and .ssh/authorized_keys2. Without the rights of root, other users' files cannot be
/// read. They are then in `unread`.
///
/// Logins are those of the journal, /var/log/auth.log, /var/log/secure, and of the newest rotated file of
/// each. Only their last 100,000 lines of sshd and 32 MiB are looked at. Logs that are missing or cannot be
/// read are no error. Whoever can write to a log there can make up logins.
///
/// Throws what pnl_host::Host throws ("ssh_exec" for an answer of more than pnl_rpc::kMaxUnasked bytes), and
/// pnl_err::Error("key_audit", host) with a message if the answer is no answer of the command.
[[nodiscard]] FLEET_API KeyAudit AskKeys(pnl_host::Host& host);

/// Parses the answer of a host; each of its lines without the word at its beginning. Any text is possible.
[[nodiscard]] FLEET_API KeyAudit ParseKeyAnswer(std::string_view answer);

/// Whose keys are known: by the key, in the form of KeyOf.
using KeyOwners = StringMap;

/// The owners in the text of a file in the format of authorized_keys: the comments. A key without a comment
/// belongs to "FILE, line N". Several owners of one key have commas between them. Throws
/// pnl_err::Error("known_keys", file, line number) with a message for a line that is no key.
[[nodiscard]] FLEET_API KeyOwners KnownKeys(std::string_view text, const std::string& file);

/// Sets what is known of all keys: fingerprints by one call of ssh-keygen(1), owners, last logins. Throws
/// pnl_err::Error("ssh_keygen") with a message if that program is missing.
FLEET_API void CompleteAudits(std::vector<KeyAudit>& audits, const KeyOwners& owners);

}  // namespace fleet
