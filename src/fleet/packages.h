#pragma once

#include <string>
#include <vector>

#include "brefir/installer.h"
#include "fleet/export.h"
#include "pnl/ssh.h"

namespace fleet {

/// A command of a package manager, and the message for its failure: "package 'x' could not be
/// installed".
struct PackageStep {
  std::string command;
  std::string failure;
};
using PackageSteps = std::vector<PackageStep>;

/// The packages of a node. In addition to velkor_repo::Installer, it shows the commands before they
/// run and reports failures with the package manager's own message.
///
///     fleet::Packages packages(ssh);
///     const fleet::PackageSteps steps = packages.Update("rsync", "");
///     if (!steps.empty()) packages.Make(steps);
///
/// Errors of the node are pnl_err::Error("node", host, what) with a message; those of the session
/// are passed on unchanged. Use it and the session from one thread at a time.
class FLEET_API Packages {
 public:
  /// Throws velkor_repo::kNotImplemented with a message for a node of neither family.
  explicit Packages(pnl_rpc::SSH ssh);

  std::string Host() const { return ssh_.Host(); }

  /// Whether a package of exactly this name is installed on the node.
  [[nodiscard]] bool Installed(const std::string& name);

  /// The steps that install a package, or the rpm file at an address. `wrap` is put before the
  /// command: environment variables or a wrapper. `name` and `wrap` are unquoted for the node's
  /// shell.
  [[nodiscard]] PackageSteps Install(const std::string& name, const std::string& wrap) const;
  /// The steps that upgrade a package and what its new version needs. `options` for the package
  /// manager are unquoted. Throws "node" when the package is not installed.
  [[nodiscard]] PackageSteps Update(const std::string& name, const std::string& options);
  /// The steps that refresh the package index; none where the package manager does that itself.
  [[nodiscard]] PackageSteps Refresh() const;

  /// Runs the steps up to the first that fails: pnl_err::Error("package", host, failure).
  void Make(const PackageSteps& steps);

 private:
  bool IsRedHat() const;

  pnl_rpc::SSH ssh_;
  velkor_repo::Installer installer_;
};

}  // namespace fleet
