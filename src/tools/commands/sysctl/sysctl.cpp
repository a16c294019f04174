#include "tools/commands/sysctl/sysctl.h"

#include "pnl/proc.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"

namespace tools {

KernelValue Kernel(pnl_host::Host& host, const std::string& name) {
  const pnl_host::Outcome run = host.Run(WithSbin("sysctl -n " + pnl_proc::Escape(name)));
  if (run.code != 0) return {std::nullopt, Said(run)};
  // The kernel separates the numbers of a list by tabs.
  return {str::Replace(str::Trim(run.output), "\t", " "), ""};
}

/// A name becomes a path below /proc/sys, in which "." and "/" change places.
void RequireParameterName(const std::string& name) {
  constexpr const char* kLetters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-:@./";
  bool good = name.find_first_not_of(kLetters) == std::string::npos;
  bool joint = true;  // at a place where a part has to begin
  for (const char c : name) {
    const bool dot = c == '.' || c == '/';
    good = good && !(joint && (dot || c == '-'));
    joint = dot;
  }
  if (good && !joint) return;
  throw UsageError("NAME", name,
                   "NAME '" + name + "' is no kernel parameter: net.ipv4.ip_forward is one");
}

}  // namespace tools
