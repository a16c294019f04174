#include "tools/commands/node/node.h"

namespace tools {
namespace {

namespace os_info = ssh_utils::os_info;

const char* const kAdvice = "; 'brefirctl node read' shows why";

Answer FactsOf(pnl_host::Host& host) {
  pnl_rpc::SSH ssh = *host.Session();
  Record facts;
  facts.Add("arch", os_info::Arch(ssh));
  const auto boot = [&] { facts.Add("boot_date", os_info::BootDate(ssh)); };
  fleet::OnNodeFile(ssh, "/proc/uptime", "read", boot, kAdvice);
  const auto release = [&] {
    facts.Add("type", str::Format("%06x", os_info::Type(ssh)))
        .Add("version", str::Trim(os_info::Version(ssh)))
        .Add("os", str::Trim(os_info::GetOs(ssh)));
  };
  fleet::OnNodeFile(ssh, "/etc/*release", "read", release, kAdvice);
  return facts;
}

}  // namespace

Verb NodeFactsVerb() {
  return {.name = "facts",
          .summary = "Shows architecture, boot date and operating system.",
          .ask = [](Context&) -> Question { return FactsOf; },
          .examples = {"--node 192.0.2.7"},
          .fields = {{"arch", "architecture, as in uname(1)"},
                     {"boot_date", "time of the last boot"},
                     {"type", "the operating system as a code of six hexadecimal digits"},
                     {"version", "version of the operating system"},
                     {"os", "its name"}}};
}

}  // namespace tools
