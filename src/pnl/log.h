#pragma once

#include <atomic>
#include <string>

#include "pnl/export.h"

/// The log: numbered levels, one module per source file.
///
///     static pnl_log::Module log_module("ospnl");
///     PNL_LOG(log_module, 4, "Template '%s' does not exists", key.c_str());
///     PNL_TRACE(log_module, "add macro '%s'", name.c_str());   // level 9, source file and line
///
/// Levels: 1 always of interest, 3 failures, 4 warnings, 5 results, 6 whole replies, 8 entry of a
/// public operation, 9 trace. A log module writes lines up to its level.
///
/// Lines go to `var/<program>.log` below the working directory, one write(2) each: time (UTC), pid,
/// thread id, level, module, text. Without a directory `var/` there is no log file. Levels come
/// from `etc/log.conf`: each line is a module name (or "*") and a level, and "#" starts a comment.
/// Without that file all modules are at kDefaultLevel. When a line is written, both files are
/// checked for changes, at most once a second. Failures of the log itself are silent: a full disk
/// must not stop the panel.
///
/// Thread safety: everything here may be called from any thread.
namespace pnl_log {

class Registry;

inline constexpr int kDefaultLevel = 5;
inline constexpr int kMaxLevel = 9;

/// A log module: a static object of the source file whose lines carry its name. Several modules of
/// one name share the configured level.
class PNL_API Module {
 public:
  explicit Module(const char* name);  ///< `name` is kept, not copied
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;
  ~Module();

  bool Enabled(int level) const noexcept { return level <= level_.load(std::memory_order_relaxed); }

  /// Writes one line; call it through PNL_LOG, which tests the level first.
  void Write(int level, const char* format, ...) noexcept __attribute__((format(printf, 3, 4)));

  const char* name() const noexcept { return name_; }

 private:
  friend class Registry;
  const char* const name_;
  /// The higher of the configured and the echoed level. It starts at the highest level: the first
  /// line then always reaches Write, which reads the configuration and tests the level again.
  std::atomic<int> level_;
  std::atomic<int> configured_;
};

/// Lines up to `level` also go to standard error, whatever etc/log.conf says. The option -v of the
/// programs uses this. -1, the default, turns it off.
PNL_API void Echo(int level);

/// From now on, uses neither etc/log.conf nor a log file of the working directory. For programs
/// that run outside of a panel's directory. Echo still works.
PNL_API void NoFile();

/// Reads etc/log.conf again now, and opens the log file below the current working directory.
PNL_API void Reload();

}  // namespace pnl_log

#define PNL_LOG(module, level, ...)           \
  do {                                        \
    if ((module).Enabled(level)) [[unlikely]] \
      (module).Write(level, __VA_ARGS__);     \
  } while (false)

/// Writes a trace line (level 9) that begins with the source file and line.
#define PNL_TRACE(module, format, ...) \
  PNL_LOG(module, 9, "%s:%d " format, __FILE_NAME__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

/// Logs the entry of a public operation (level 8) with its full signature.
#define PNL_ENTRY(module) PNL_LOG(module, 8, "%s", __PRETTY_FUNCTION__)
