#pragma once

#include <string>

#include "fleet/draft.h"
#include "fleet/export.h"

/// Ready-made edits for runs: packages that are held, and package repositories. Changes of packages
/// themselves are Draft::ChangePackages.
///
///     fleet::Journal journal(fleet::OpenFleetDatabase());
///     fleet::Run run(&journal, {{"web1", options}}, {.command = "the panel's packages"});
///     run.Plan({fleet::PanelRepoEdit(fleet::PanelRepo::kBase), fleet::HoldEdit("rsync", true)});
///
/// Where the edit cannot be made, planning fails for that host: pnl_err::Error("node", HOST, X), with
/// a message, and kIsMissing if another step may bring what is missing. Thread-safe.
namespace fleet {

/// Makes the package manager keep the installed version of a package, or stop that. Nothing is to do
/// if it is so already. Hosts of the Red Hat family need the plugin versionlock of their yum or dnf.
/// Throws pnl_err::Error("package", NAME), with a message, unless IsPackageName.
[[nodiscard]] FLEET_API Edit HoldEdit(const std::string& name, bool held);

/// Whether the text can be the name of a package: letters, digits and "+-._:~", and no "-" in front.
[[nodiscard]] FLEET_API bool IsPackageName(const std::string& name);

/// The panel's own package repositories.
enum class PanelRepo { kBase, kCommon };

/// Adds one of the panel's repositories: its file, and its signing key. In the Debian family the
/// index is fetched afterwards, and again when the edit is undone; a base repository that is there
/// stays as it is. In the Red Hat family the key is imported on the host when the file changes;
/// undoing removes the keys that this brought. The main repository needs epel-release there, which is
/// installed first.
///
/// Files and keys are fetched once for all hosts, when the first host needs them: errors are "file"
/// and "fetch", with a message.
[[nodiscard]] FLEET_API Edit PanelRepoEdit(PanelRepo repo);
/// The path of the repository's file on a host of that family.
[[nodiscard]] FLEET_API std::string PanelRepoFile(PanelRepo repo, PackageFamily family);

}  // namespace fleet
