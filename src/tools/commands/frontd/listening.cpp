#include "pnl/test.h"
#include "tools/commands/frontd/frontd.h"
#include "tools/commands/host_file.h"
#include "tools/frame/login.h"

namespace tools {

static Answer ListeningAt(pnl_host::Host& host, const std::string& ip, int port) {
  const bool listening = OpenPanel(host).Listening(ip, port);
  Answer answer = Record().Add("ip", ip).Add("port", port).Add("listening", listening);
  answer.text = listening ? "true\n" : "false\n";
  answer.code = listening ? kDone : kNo;
  return answer;
}

static Answer PortsOf(pnl_host::Host& host, const std::string& ip) {
  std::vector<int> ports;
  const bool listening = OpenPanel(host).Listening(ip, ports);
  Answer answer = std::vector<Record>();
  for (const int port : ports) answer.records.push_back(Record().Add("ip", ip).Add("port", port));
  answer.code = listening ? kDone : kNo;
  return answer;
}

static Question Listening(Context& context) {
  const std::string ip = ListenIp(context);
  if (context.values.Has("PORT")) {
    const int port = static_cast<int>(context.values.Int("PORT"));
    return [=](pnl_host::Host& host) { return ListeningAt(host, ip, port); };
  }
  if (test::Ip6(ip)) throw UsageError("PORT", "", "PORT is missing: an IPv6 address needs one");
  return [=](pnl_host::Host& host) { return PortsOf(host, ip); };
}

static void DescribeListening(opts::Args& args) {
  args.Positional("IP").Help("an IP address, without brackets");
  DescribePort(args).Help("the port; default: show all ports of the address");
}

Verb FrontdListeningVerb() {
  return {.name = "listening",
          .summary = "Checks whether frontd is to listen there; exit code 3 for no.",
          .describe = DescribeListening,
          .ask = Listening,
          .examples = {"192.0.2.1 443"},
          .fields = {{"ip", "the address"},
                     {"port", "the port; without PORT there is a record for each"},
                     {"listening", "whether frontd is to listen there", "with PORT"}}};
}

}  // namespace tools
