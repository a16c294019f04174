#pragma once

/// The names of files and directories below the working directory; for the sources of this
/// directory only. Other code gets a path from a public header: pnl_task::LogPath,
/// pnl_client::kUtility.
namespace pnl_layout {

inline constexpr const char* kSettings = "etc/brefir.conf";  // lines "KEY = VALUE"
inline constexpr const char* kLogConf = "etc/log.conf";      // lines "MODULE LEVEL"
inline constexpr const char* kLogDir = "var/";               // with PROGRAM.log
inline constexpr const char* kTaskDir = "var/tasks";         // with ID.task, ID.log, ...

}  // namespace pnl_layout
