#include "tools/commands/node/node.h"

namespace tools {
namespace {

namespace os_info = ssh_utils::os_info;

const char* const kAdvice = "; 'brefirctl node read' shows why";

int Facts(Context& context) {
  pnl_rpc::SSH ssh = OpenNode(context);
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
  context.out.One(facts);
  return kDone;
}

}  // namespace

Verb NodeFactsVerb() {
  return {.name = "facts",
          .summary = "Shows architecture, boot date and operating system.",
          .run = Facts,
          .examples = {"--node 192.0.2.7"},
          .fields = {{"arch", "architecture, as in uname(1)"},
                     {"boot_date", "time of the last boot"},
                     {"type", "the operating system as a code of six hexadecimal digits"},
                     {"version", "version of the operating system"},
                     {"os", "its name"}}};
}

}  // namespace tools
