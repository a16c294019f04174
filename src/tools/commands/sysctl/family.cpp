// sysctl: kernel parameters, in /etc/sysctl.conf and in the kernel, on this host or on a node.

#include "tools/commands/families.h"
#include "tools/commands/sysctl/sysctl.h"
#include "tools/frame/login.h"

namespace tools {

void RequireParameterName(const std::string& name) {
  if (fleet::IsParameterName(name)) return;
  throw UsageError("NAME", name,
                   "NAME '" + name + "' is not a kernel parameter, such as net.ipv4.ip_forward");
}

Family SysctlFamily() {
  return {.name = "sysctl",
          .summary = "Kernel parameters in /etc/sysctl.conf and in the kernel, here or on a node.",
          .describe = [](opts::Args& args) { AddNodeOptions(args); },
          .verbs = {SysctlGetVerb(), SysctlSetVerb()},
          .files = {{fleet::kSysctlConf, "the file"}},
          .see_also = {"sysctl(8)", "sysctl.conf(5)"}};
}

}  // namespace tools
