#pragma once

#include "fleet/packages.h"
#include "tools/frame/verb.h"

/// What the verbs of the family "package" share.
namespace tools {

Verb PackageInstalledVerb();
Verb PackageInstallVerb();
Verb PackageUpdateVerb();
Verb PackageRefreshVerb();
Verb PackageAddRepoVerb();

/// The packages of --node.
[[nodiscard]] fleet::Packages OpenPackages(const Context& context);

/// The word NAME, which goes to the node's shell and its package manager as it is.
[[nodiscard]] std::string PackageName(const Context& context);
opts::Arg& DescribePackage(opts::Args& args);

/// Runs the steps; told of by `record`.
[[nodiscard]] Change PackageChange(const fleet::Packages& packages,
                                   const fleet::PackageSteps& steps, const Record& record);

inline const Field kPackageField = {"name", "the package"};

}  // namespace tools
