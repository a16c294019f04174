#pragma once

/// For the sources of this directory only: names of what stands on disk, each of them once.
namespace fleet::layout {

inline constexpr const char* kHostConf = "/etc/brefir.conf";     // the host's own settings
inline constexpr const char* kRecipeLogDir = "var/recipes/log";  // below the prefix
inline constexpr const char* kRotationSuffix = ".rotation";      // behind the private key's name

}  // namespace fleet::layout
