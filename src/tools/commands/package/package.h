#pragma once

#include "fleet/packages.h"
#include "tools/frame/verb.h"

/// What the verbs of the family "package" share.
namespace tools {

Verb PackageListVerb();
Verb PackageInstalledVerb();
Verb PackageInstallVerb();
Verb PackageRemoveVerb();
Verb PackageUpdateVerb();
Verb PackageHoldVerb();
Verb PackageUnholdVerb();
Verb PackageRefreshVerb();
Verb PackageAddRepoVerb();

/// The packages of --node, for what no run does.
[[nodiscard]] fleet::Packages OpenPackages(const Context& context);

/// The word NAME, which goes to the node's shell and its package manager as it is.
[[nodiscard]] std::string PackageName(const Context& context);
/// The words NAME, for a run; with `versions` a word may be NAME=VERSION.
[[nodiscard]] std::vector<std::string> PackageNames(const Context& context, bool versions = false);
opts::Arg& DescribePackage(opts::Args& args);
opts::Arg& DescribePackages(opts::Args& args);

/// Runs the steps; told of by `record`.
[[nodiscard]] Change PackageChange(const fleet::Packages& packages,
                                   const fleet::PackageSteps& steps, const Record& record);
/// What the host's package manager is asked for, as a run. The records say that `done` is true.
[[nodiscard]] HostEdit PackageEdit(const fleet::PackageRequest& request, const std::string& done);

inline const Field kPackageField = {"name", "the package"};
inline const Field kVersionField = {"version", "its version"};

}  // namespace tools
