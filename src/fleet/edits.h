#pragma once

#include <string>

#include "brefir/simpleconfig.h"
#include "fleet/draft.h"
#include "fleet/export.h"
#include "pnl/str.h"

/// Ready-made edits for runs: keys of configuration files, kernel parameters, authorized keys. Each
/// changes lines of a text file and leaves all other lines as they are; so does undoing it, when
/// somebody else has changed other lines meanwhile.
///
///     const std::vector<fleet::Edit> edits = {
///         fleet::SetKeyEdit("/etc/app.conf", "port", "8080"),
///         fleet::ParametersEdit({{"net.ipv4.ip_forward", "1"}}),
///         fleet::AuthorizedKeyEdit("backup", "ssh-ed25519 AAAA... backup", true)};
///     fleet::Journal journal(fleet::OpenFleetDatabase());
///     fleet::Run run(&journal, {{"web1", options}}, {.command = "the new port"});
///     run.Plan(edits);
///
/// Where the edit cannot be made, planning fails for that host with one of these types, with a
/// message; no host is changed then:
///
///      Missed("file", PATH)    there is no such file, and none is to be made
///      Missed("key", KEY)      the file has no such key
///      Missed("after", TEXT)   the file has no line that begins with it
///      Error("node", HOST, X)  X is no text file of a size that can be edited, or a parameter that
///                              the kernel does not have
///
/// Thread-safe. Paths are absolute; links are followed. A file that is there keeps owner and mode.
namespace fleet {

struct SetKeyOptions {
  utils::LineSyntax syntax = {};
  std::string after = {};  ///< as for SetConfigKey
  bool create = false;     ///< make the file, with mode 0644, if it is missing
  bool secret = false;     ///< see RunStep::secret
};
/// Sets a key of a configuration file, as SetConfigKey does.
[[nodiscard]] FLEET_API Edit SetKeyEdit(const std::string& path, std::string key, std::string value,
                                        SetKeyOptions options = {});
/// Removes the lines of a key.
[[nodiscard]] FLEET_API Edit RemoveKeyEdit(const std::string& path, std::string key,
                                           utils::LineSyntax syntax = {});

/// Sets kernel parameters: their lines in kSysctlConf and the kernel's values. Numbers are compared as
/// the kernel prints them. A value that the kernel does not take fails the step. Throws
/// pnl_err::Error("parameter", NAME), with a message, unless IsParameterName.
[[nodiscard]] FLEET_API Edit ParametersEdit(const StringMap& values);

/// Makes exactly this line present in an authorized_keys file, at its end, or absent. Other lines with
/// the same key stay. `place` is the path of the file, or a user's name, which means
/// .ssh/authorized_keys in the user's home. A missing file is made with mode 0600, and its missing
/// directory with mode 0700; both get the owner of the directory they are in. With a
/// user's name, links out of the home to what is not the user's are refused. Throws
/// pnl_err::Error("authorized_key", LINE), with a message, when it is not one line with a key.
[[nodiscard]] FLEET_API Edit AuthorizedKeyEdit(const std::string& place, std::string line,
                                               bool present);

/// Removes all lines of a key (in the form of KeyOf) from such a file, whatever their options and comments
/// are. Planning fails where the file would then have no line of `kept`, the key that the panel logs in
/// with.
[[nodiscard]] FLEET_API Edit RetireKeyEdit(const std::string& place, std::string key,
                                           std::string kept);

}  // namespace fleet
