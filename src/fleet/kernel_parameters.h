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

/// Kernel parameters of a host (this host or a node), in the kernel and in the file.
///
///     fleet::ParameterChange change(host, {{"net.ipv4.ip_forward", "1"}});
///     Show(change.GetPlan());
///     for (const fleet::Parameter& parameter : change.Make({.report = Tell})) ...
namespace fleet {

/// The file of a host.
inline constexpr const char* kSysctlConf = "/etc/sysctl.conf";

/// Whether `name` is a valid parameter name, such as "net.ipv4.ip_forward": it is used as a path
/// below /proc/sys and as a word for sysctl(8). Pure.
[[nodiscard]] FLEET_API bool IsParameterName(const std::string& name);

/// The value of a parameter in the text of such a file: that of the last line; null when there is
/// none. Pure.
[[nodiscard]] FLEET_API std::optional<std::string> ParameterInFile(const std::string& text,
                                                                   const std::string& name);

/// `value` as the kernel prints it: its words with one blank between them, numbers in decimal
/// digits. Pure.
[[nodiscard]] FLEET_API std::string KernelText(std::string value);

/// The kernel's value of a parameter.
struct KernelValue {
  std::optional<std::string> value;  ///< null: no such parameter, or not readable
  std::string reason;                ///< why there is no value
};

[[nodiscard]] FLEET_API KernelValue ReadParameter(pnl_host::Host& host, const std::string& name);

/// A parameter to be set.
struct Parameter {
  std::string name;
  std::string value;        ///< the requested value
  KernelValue before = {};  ///< the kernel's value when the change was planned
  KernelValue now = {};     ///< the kernel's value after the change
  bool taken = false;       ///< whether the kernel accepted it, even if it was undone later
};

/// Sets new values in the file and in the kernel of a host, or leaves both as they were. For this
/// host, hold a lock on the file: two changes at the same time would restore each other's values.
/// Use it and the host's session from one thread at a time.
class FLEET_API ParameterChange {
 public:
  /// Reads file and kernel. Throws "remote_read".
  ParameterChange(pnl_host::Host host, const StringMap& values);

  /// The changes of the file and of the kernel's values; numbers are compared as the kernel prints
  /// them.
  const Plan& GetPlan() const { return plan_; }

  struct Options {
    bool keep = false;  ///< keep the changes even when the kernel refused a value
    /// Called for each value that was refused, and for each that could not be restored.
    std::function<void(const pnl_err::Error&)> report = {};
  };
  /// Writes the file, loads it and reads the values back. When the kernel refused a value, the file
  /// and all values of the kernel are restored. Throws "remote_write", and "conflict" when somebody
  /// else has changed the file.
  const std::vector<Parameter>& Make(const Options& options);

 private:
  bool Load(const Options& options);
  void PutBack(const Options& options);

  pnl_host::Host host_;
  std::vector<Parameter> parameters_;
  Plan plan_;  // the file is the first step
};

}  // namespace fleet
