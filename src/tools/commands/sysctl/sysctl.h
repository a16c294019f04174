#pragma once

#include <optional>
#include <string>

#include "pnl/host.h"
#include "tools/frame/verb.h"

/// What the verbs of the family "sysctl" share.
namespace tools {

// One function per verb, in VERB.cpp.
Verb SysctlGetVerb();
Verb SysctlSetVerb();

inline constexpr const char* kSysctlConf = "/etc/sysctl.conf";

/// What the kernel has of a parameter.
struct KernelValue {
  std::optional<std::string> value;  ///< none: it has no such parameter, or does not let it be read
  std::string reason;                ///< why there is none
};

[[nodiscard]] KernelValue Kernel(pnl_host::Host& host, const std::string& name);

/// `name` has to be that of a kernel parameter: else a usage error.
void RequireParameterName(const std::string& name);

inline const Field kParameter = {"key", "the parameter"};
inline const Field kKernelField = {"kernel", "what the kernel has by now; null when it has none"};

}  // namespace tools
