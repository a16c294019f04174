#include "pnl/test.h"
#include "tools/commands/frontd/frontd.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"

namespace tools {

static int ListeningAt(Context& context, const std::string& ip) {
  const int port = static_cast<int>(context.values.Int("PORT"));
  const bool listening = OpenPanel(OpenHost(context)).Listening(ip, port);
  context.out.Truth(Record().Add("ip", ip).Add("port", port).Add("listening", listening),
                    "listening");
  return listening ? kDone : kNo;
}

static int Listening(Context& context) {
  const std::string ip = ListenIp(context);
  if (context.values.Has("PORT")) return ListeningAt(context, ip);
  if (test::Ip6(ip)) throw UsageError("PORT", "", "PORT is missing: an IPv6 address needs one");
  std::vector<int> ports;
  const bool listening = OpenPanel(OpenHost(context)).Listening(ip, ports);
  std::vector<Record> records;
  records.reserve(ports.size());
  for (const int port : ports) records.push_back(Record().Add("ip", ip).Add("port", port));
  context.out.List(records);
  return listening ? kDone : kNo;
}

static void DescribeListening(opts::Args& args) {
  args.Positional("IP").Help("an IP address, without brackets");
  DescribePort(args).Help("the port; default: show all ports of the address");
}

Verb FrontdListeningVerb() {
  return {.name = "listening",
          .summary = "Checks whether frontd is to listen there; exit code 3 for no.",
          .describe = DescribeListening,
          .run = Listening,
          .examples = {"192.0.2.1 443"},
          .fields = {{"ip", "the address"},
                     {"port", "the port; without PORT there is a record for each"},
                     {"listening", "whether frontd is to listen there", "with PORT"}}};
}

}  // namespace tools
