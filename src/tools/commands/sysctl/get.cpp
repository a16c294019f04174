#include "tools/commands/host_file.h"
#include "tools/commands/sysctl/sysctl.h"

namespace tools {

static int Get(Context& context) {
  for (const std::string& name : context.values.List("NAME")) RequireParameterName(name);
  pnl_host::Host host = OpenHost(context);
  const std::string text = HostContent(host, fleet::kSysctlConf).value_or("");
  std::vector<Record> records;
  for (const std::string& name : context.values.List("NAME")) {
    const fleet::KernelValue kernel = fleet::ReadParameter(host, name);
    if (!kernel.value) {
      context.Report(pnl_err::Missed("parameter", name)
                         .add_param("message", host.Name() + ": parameter '" + name +
                                                   "' cannot be read: " + kernel.reason));
    }
    records.push_back(Record()
                          .Add("key", name)
                          .Add("file", fleet::ParameterInFile(text, name))
                          .Add("kernel", kernel.value));
  }
  context.out.List(records);
  return kDone;
}

static void Describe(opts::Args& args) {
  args.Positional("NAME").Repeated().Help("a kernel parameter, such as net.ipv4.ip_forward");
}

Verb SysctlGetVerb() {
  return {.name = "get",
          .summary = "Shows the value in the file and the value in the kernel.",
          .describe = Describe,
          .run = Get,
          .examples = {"net.ipv4.ip_forward", "net.ipv4.ip_forward vm.swappiness --node 192.0.2.7"},
          .fields = {
              kParameter, {"file", "the value in the file; null if there is none"}, kKernelField}};
}

}  // namespace tools
