#pragma once

#include "fleet/kernel_parameters.h"
#include "tools/frame/verb.h"

/// What the verbs of the family "sysctl" share.
namespace tools {

// One function per verb, in VERB.cpp.
Verb SysctlGetVerb();
Verb SysctlSetVerb();

/// `name` has to be that of a kernel parameter: else a usage error.
void RequireParameterName(const std::string& name);

inline const Field kParameter = {"key", "the parameter"};
inline const Field kKernelField = {"kernel", "the value in the kernel now; null if there is none"};

}  // namespace tools
