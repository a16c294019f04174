#include "tools/commands/host_file.h"
#include "tools/commands/sysctl/sysctl.h"

namespace tools {

static Answer ParametersOf(pnl_host::Host& host, const std::vector<std::string>& names) {
  const std::string text = HostContent(host, fleet::kSysctlConf).value_or("");
  Answer answer = std::vector<Record>();
  for (const std::string& name : names) {
    const fleet::KernelValue kernel = fleet::ReadParameter(host, name);
    if (!kernel.value) {
      answer.code = kFailed;
      answer.errors.push_back(pnl_err::Missed("parameter", name)
                                  .add_param("message", host.Name() + ": parameter '" + name +
                                                            "' cannot be read: " + kernel.reason));
    }
    answer.records.push_back(Record()
                                 .Add("key", name)
                                 .Add("file", fleet::ParameterInFile(text, name))
                                 .Add("kernel", kernel.value));
  }
  return answer;
}

static Question Get(Context& context) {
  const std::vector<std::string> names = context.values.List("NAME");
  for (const std::string& name : names) RequireParameterName(name);
  return [names](pnl_host::Host& host) { return ParametersOf(host, names); };
}

static void Describe(opts::Args& args) {
  args.Positional("NAME").Repeated().Help("a kernel parameter, such as net.ipv4.ip_forward");
}

Verb SysctlGetVerb() {
  return {.name = "get",
          .summary = "Shows the value in the file and the value in the kernel.",
          .describe = Describe,
          .ask = Get,
          .lists = true,
          .examples = {"net.ipv4.ip_forward", "net.ipv4.ip_forward vm.swappiness --node 192.0.2.7"},
          .fields = {
              kParameter, {"file", "the value in the file; null if there is none"}, kKernelField}};
}

}  // namespace tools
