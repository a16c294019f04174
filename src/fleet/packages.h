#pragma once

#include <string>
#include <vector>

#include "brefir/installer.h"
#include "fleet/export.h"
#include "fleet/plan.h"
#include "pnl/ssh.h"

namespace fleet {

/// A command of a package manager, and what is told when it fails: "package 'x' could not be
/// installed".
struct PackageStep {
  std::string command;
  std::string failure;
};
using PackageSteps = std::vector<PackageStep>;

/// The panel's own package repositories.
enum class PanelRepo { kBase, kCommon };

/// The packages of a node: velkor_repo::Installer, with its commands known before they run, and with
/// failures in the package manager's words.
///
///     fleet::Packages packages(ssh);
///     const fleet::PackageSteps steps = packages.Update("rsync", "");
///     if (!steps.empty()) packages.Make(steps);
///
/// Errors of the node: pnl_err::Error("node", host, what), with a message; those of the session pass
/// through. One thread at a time uses it and the session.
class FLEET_API Packages {
 public:
  /// velkor_repo::kNotImplemented, with a message, for a node of neither family.
  explicit Packages(pnl_rpc::SSH ssh);

  std::string Host() const { return ssh_.Host(); }

  /// Whether the node has the package of just this name.
  [[nodiscard]] bool Installed(const std::string& name);

  /// Installs a package, or the rpm file at an address; `name` and `wrap` (variables or a wrapper in
  /// front of the command) go to the node's shell as they are.
  [[nodiscard]] PackageSteps Install(const std::string& name, const std::string& wrap) const;
  /// Upgrades this package, and what its new version needs, with the `options` of the package
  /// manager as they are. "node" when it is not installed.
  [[nodiscard]] PackageSteps Update(const std::string& name, const std::string& options);
  /// Fetches the package index; no steps where that is done by itself.
  [[nodiscard]] PackageSteps Refresh() const;

  /// Runs them, up to the first that fails: pnl_err::Error("package", host, its failure).
  void Make(const PackageSteps& steps);

  /// The change of the node's file of the repository. Reads it, and fetches the new one where it
  /// comes from the download server: "fetch".
  [[nodiscard]] Step RepoStep(PanelRepo repo);
  /// Adds it, with its keys: "install_repository"; "node" when the file is not there afterwards.
  void AddRepo(PanelRepo repo);

 private:
  bool IsRedHat() const;
  std::string RepoFile(PanelRepo repo) const;

  pnl_rpc::SSH ssh_;
  velkor_repo::Installer installer_;
};

}  // namespace fleet
