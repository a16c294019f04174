#pragma once

/// For the sources of this directory only: names of what stands on disk, each of them once, below
/// the working directory. Whoever else needs one is given it by a public header: pnl_task::LogPath,
/// pnl_client::kUtility.
namespace pnl_layout {

inline constexpr const char* kSettings = "etc/brefir.conf";  // lines "KEY = VALUE"
inline constexpr const char* kLogConf = "etc/log.conf";      // lines "MODULE LEVEL"
inline constexpr const char* kLogDir = "var/";               // and PROGRAM.log
inline constexpr const char* kTaskDir = "var/tasks";         // and ID.task, ID.log, ...

}  // namespace pnl_layout
