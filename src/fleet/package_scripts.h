#pragma once

/// The parts of the scripts of a run that deal with packages; for the sources of this directory only.
/// A package is named "NAME", or "NAME:ARCH" (Debian) and "NAME.ARCH" (Red Hat) if its architecture
/// is a foreign one. Its version is as the manager writes it, with "/" between versions that are
/// installed beside each other; "config" if only its configuration files are left; the manager's own
/// word ("half-installed", "unpacked") if it is half-done.
namespace fleet::scripts {

/// `family` sets fam and pm, `listed` prints "NAME VERSION" for all packages, `idle` waits for the
/// manager's lock. They need `fail`.
extern const char* const kPackages;

/// `plan` answers a question of kLook.
extern const char* const kPackagePlans;

/// `packages` makes or undoes a step of kWork.
extern const char* const kPackageSteps;

}  // namespace fleet::scripts
