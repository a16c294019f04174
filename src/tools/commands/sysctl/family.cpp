// sysctl: kernel parameters, in /etc/sysctl.conf and in the kernel, here or on a node.

#include "tools/commands/families.h"
#include "tools/commands/login.h"
#include "tools/commands/sysctl/sysctl.h"

namespace tools {
namespace {

void DescribeFamily(opts::Args& args) {
  AddNodeOptions(args);
}

}  // namespace

Family SysctlFamily() {
  return {.name = "sysctl",
          .summary = "Kernel parameters in /etc/sysctl.conf and in the kernel, here or on a node.",
          .describe = DescribeFamily,
          .verbs = {SysctlGetVerb(), SysctlSetVerb()},
          .files = {{kSysctlConf, "the file"}},
          .see_also = {"sysctl(8)", "sysctl.conf(5)"}};
}

}  // namespace tools
