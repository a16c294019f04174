#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "fleet/plan.h"
#include "pnl/err.h"
#include "pnl/host.h"
#include "pnl/str.h"

/// Kernel parameters of a host, here or on a node: those of the kernel, and those of its file.
///
///     fleet::ParameterChange change(host, {{"net.ipv4.ip_forward", "1"}});
///     Show(change.GetPlan());
///     for (const fleet::Parameter& parameter : change.Make({.report = Tell})) ...
namespace fleet {

/// Where a host keeps them.
inline constexpr const char* kSysctlConf = "/etc/sysctl.conf";

/// Whether `name` is one of a parameter, "net.ipv4.ip_forward": it becomes a path below /proc/sys,
/// and a word of sysctl(8). Pure.
[[nodiscard]] FLEET_API bool IsParameterName(const std::string& name);

/// The value that loading the text of such a file sets: that of the last line; null for none. Pure.
[[nodiscard]] FLEET_API std::optional<std::string> ParameterInFile(const std::string& text,
                                                                   const std::string& name);

/// What the kernel has of a parameter.
struct KernelValue {
  std::optional<std::string> value;  ///< null: it has no such one, or does not let it be read
  std::string reason;                ///< why there is none
};

[[nodiscard]] FLEET_API KernelValue ReadParameter(pnl_host::Host& host, const std::string& name);

/// A parameter that is to be set.
struct Parameter {
  std::string name;
  std::string value;        ///< what it is to be
  KernelValue before = {};  ///< what the kernel had when the change was planned
  KernelValue now = {};     ///< and has since it was made
  bool taken = false;       ///< whether the kernel took it, if only for a moment
};

/// File and kernel of a host, made to agree with new values, or left as they were. Whoever makes one
/// of this host holds a lock on the file, since two at once would go back to each other's values.
/// One thread at a time uses it and the host's session.
class FLEET_API ParameterChange {
 public:
  /// Reads file and kernel. Throws "remote_read".
  ParameterChange(pnl_host::Host host, const StringMap& values);

  /// The file and the values of the kernel, numbers compared as it prints them.
  const Plan& GetPlan() const { return plan_; }

  struct Options {
    bool keep = false;  ///< file and kernel stay as they are also when it did not take a value
    /// Told of each value that was not taken, and of what could not be put back.
    std::function<void(const pnl_err::Error&)> report = {};
  };
  /// Writes the file, loads it and reads the values back. When the kernel did not take one, the
  /// file goes back to what it was, and the kernel gets back what it had of all of them. Throws
  /// "remote_write", and "conflict" when somebody else has changed the file.
  const std::vector<Parameter>& Make(const Options& options);

 private:
  bool Load(const Options& options);
  void PutBack(const Options& options);

  pnl_host::Host host_;
  std::vector<Parameter> parameters_;
  Plan plan_;  // the file first
};

}  // namespace fleet
