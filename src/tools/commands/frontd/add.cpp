#include "pnl/test.h"
#include "tools/commands/frontd/frontd.h"

namespace tools {
namespace {

constexpr const char* kDefaultPort = "1500";

/// The entry as the module lists it now. Without a port it has the default port.
pnl_xml::XmlNode Entry(const pnl_xml::Xml& list, const std::string& id) {
  const std::string usual = std::string(":") + kDefaultPort;
  for (const pnl_xml::XmlNode& entry : list.GetNodes("/doc/elem")) {
    const std::string port = entry.FindNode("port").Str();
    if (port == id || port + usual == id) return entry;
  }
  return {};
}

HostEdit Add(Context& context) {
  const std::string ip = ListenIp(context);
  const int port = static_cast<int>(context.values.Int("PORT"));
  const std::string id = (test::Ip6(ip) ? "[" + ip + "]" : ip) + ":" + std::to_string(port);
  const opts::Values& values = context.values;
  const auto work = [=, &values](FrontdCtl& frontd) {
    const pnl_xml::Xml list = frontd.List();
    const pnl_xml::XmlNode entry = Entry(list, id);
    const auto flag = [&](const std::string& name) {
      const bool named = values.Has(name) || values.Has("no-" + name);
      return named ? values.Has(name) : IsOn(entry, name);
    };
    frontd.Add(ip, port, flag("sslauth"), flag("sslonly"));
  };
  const auto answer = [=](FrontdCtl& frontd, bool knows) {
    const pnl_xml::Xml list = frontd.List();
    const pnl_xml::XmlNode entry = Entry(list, id);
    if (knows) return ToRecord(kListenFields, entry);
    return Record()
        .Add("id", entry.FindNode("port").Str())
        .Add("sslauth", IsOn(entry, "sslauth"))
        .Add("sslonly", IsOn(entry, "sslonly"))
        .Add("error", Value());
  };
  return ListenEdit(
      context,
      {work, answer, "Listen[[:blank:]]*" + ip + "[[:blank:]]*" + std::to_string(port), port});
}

void Describe(opts::Args& args) {
  args.Positional("IP").Help("an IP address of the host, without brackets");
  DescribePort(args).Default(kDefaultPort).Help("the port");
  args.Details("If the entry already exists, it keeps the flags that are not given.");
  args.Option("sslauth").Help("ask clients for a certificate");
  args.Option("sslonly").Help("refuse connections that are not encrypted");
  args.Option("no-sslauth").Help("do not ask clients for a certificate").Excludes("sslauth");
  args.Option("no-sslonly").Help("allow connections that are not encrypted").Excludes("sslonly");
  DescribeListenChange(args);
}

}  // namespace

Verb FrontdAddVerb() {
  return {.name = "add",
          .summary = "Adds a listen address or changes its flags.",
          .describe = Describe,
          .edit = Add,
          .examples = {"192.0.2.1 443 --sslonly --restart", "2001:db8::1 --dry-run",
                       ":: 443 --nodes @web"},
          .fields = Declared(kListenFields)};
}

}  // namespace tools
