#include "pnl/test.h"
#include "tools/commands/frontd/frontd.h"
#include "tools/commands/host_file.h"
#include "tools/commands/login.h"

namespace tools {

const FieldTable<pnl_xml::XmlNode> kListenFields = {
    {{"id", "address and port, an IPv6 address in brackets: what remove takes"},
     [](const pnl_xml::XmlNode& entry) { return entry.FindNode("port").Str(); }},
    {{"sslauth", "whether clients are asked for a certificate"},
     [](const pnl_xml::XmlNode& entry) { return IsOn(entry, "sslauth"); }},
    {{"sslonly", "whether connections that are not encrypted are refused"},
     [](const pnl_xml::XmlNode& entry) { return IsOn(entry, "sslonly"); }},
    {{"error", "what is wrong with it, else null"}, [](const pnl_xml::XmlNode& entry) {
       const pnl_xml::XmlNode error = entry.FindNode("error");
       return error ? Value(error.Str()) : Value();
     }}};

bool IsOn(const pnl_xml::XmlNode& entry, const std::string& flag) {
  const pnl_xml::XmlNode node = entry ? entry.FindNode(flag.c_str()) : entry;
  return node && node.Str() == "on";
}

namespace {

int List(Context& context) {
  const pnl_xml::Xml list = OpenPanel(OpenHost(context)).List();
  std::vector<Record> records;
  for (const pnl_xml::XmlNode& entry : list.GetNodes("/doc/elem"))
    records.push_back(ToRecord(kListenFields, entry));
  context.out.List(records);
  return kDone;
}

int ListeningAt(Context& context, const std::string& ip) {
  const int port = static_cast<int>(context.values.Int("PORT"));
  const bool listening = OpenPanel(OpenHost(context)).Listening(ip, port);
  if (context.out.GetFormat() == Format::kJson) {
    context.out.One(Record().Add("ip", ip).Add("port", port).Add("listening", listening));
  } else {
    context.out.Raw(listening ? "true\n" : "false\n");
  }
  return listening ? kDone : kNo;
}

int Listening(Context& context) {
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

void DescribeListening(opts::Args& args) {
  args.Positional("IP").Help("an address, without brackets");
  DescribePort(args).Help("else all ports at that address are shown");
}

}  // namespace

Verb FrontdListVerb() {
  return {.name = "list",
          .summary = "Lists the listen addresses, and what is wrong with one.",
          .run = List,
          .examples = {"", "--node 192.0.2.7"},
          .fields = Declared(kListenFields)};
}

Verb FrontdListeningVerb() {
  return {.name = "listening",
          .summary = "Tells, also by the exit code, whether the server is to listen there.",
          .describe = DescribeListening,
          .run = Listening,
          .examples = {"192.0.2.1 443"},
          .fields = {{"ip", "the address"},
                     {"port", "the port; without PORT there is a record for each"},
                     {"listening", "whether it is to listen there", "with PORT"}}};
}

}  // namespace tools
