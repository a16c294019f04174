#pragma once

#include <map>
#include <string>
#include <string_view>

#include "fleet/export.h"
#include "fleet/host_steps.h"

/// What package managers of both families would do, from what they print when they are asked. Pure.
namespace fleet {

/// The answer of a host. Texts are as the manager prints them in the language C.
struct PackageAnswer {
  PackageFamily family = PackageFamily::kUnknown;
  std::string machine = {};  ///< uname -m
  std::string manager = {};  ///< "apt-get", "yum" or "dnf"; "": the host has none
  std::map<std::string, std::string> installed = {};  ///< name to version, see ReadPackages
  int code = 0;                                       ///< exit code of the simulation
  std::string plan = {};                              ///< its output
  /// Of what would be replaced or removed, the versions that can be had: apt-cache madison and the
  /// names of files in apt's cache, or yum list available.
  std::string available = {};
  std::string automatic = {};  ///< apt-mark showauto
};

/// The packages of lines "NAME VERSION". "config" in the place of the version: only configuration
/// files are left (Debian).
[[nodiscard]] FLEET_API std::map<std::string, std::string> ReadPackages(std::string_view lines);

/// What the manager would do for the request. Its command names each package at its version, so that
/// what was shown is what is done. Installing and updating never remove a package, unless another one
/// takes its place.
[[nodiscard]] FLEET_API PackagePlan ReadPackagePlan(const PackageRequest& request,
                                                    const PackageAnswer& answer);

}  // namespace fleet
