#pragma once

/// The names of files; for the sources of this directory only.
namespace fleet::layout {

inline constexpr const char* kHostConf = "/etc/brefir.conf";     // the host's own settings
inline constexpr const char* kRecipeLogDir = "var/recipes/log";  // below the prefix
inline constexpr const char* kRotationSuffix = ".rotation";      // after the private key's name

inline constexpr const char* kFleetDir = "var/fleet";            // below the prefix
inline constexpr const char* kFleetDatabase = "fleet.db";        // in the state directory
inline constexpr const char* kHostStateDir = "/var/lib/brefir";  // root's, without a prefix

}  // namespace fleet::layout
