#include "tools/commands/frontd/frontd.h"
#include "tools/commands/host_file.h"

namespace tools {

const FieldTable<pnl_xml::XmlNode> kListenFields = {
    {{"id", "address and port, an IPv6 address in brackets, as remove takes it"},
     [](const pnl_xml::XmlNode& entry) { return entry.FindNode("port").Str(); }},
    {{"sslauth", "whether clients are asked for a certificate"},
     [](const pnl_xml::XmlNode& entry) { return IsOn(entry, "sslauth"); }},
    {{"sslonly", "whether connections that are not encrypted are refused"},
     [](const pnl_xml::XmlNode& entry) { return IsOn(entry, "sslonly"); }},
    {{"error", "what is wrong with the entry, or null"}, [](const pnl_xml::XmlNode& entry) {
       const pnl_xml::XmlNode error = entry.FindNode("error");
       return error ? Value(error.Str()) : Value();
     }}};

bool IsOn(const pnl_xml::XmlNode& entry, const std::string& flag) {
  const pnl_xml::XmlNode node = entry ? entry.FindNode(flag.c_str()) : entry;
  return node && node.Str() == "on";
}

static Answer ListOf(pnl_host::Host& host) {
  const pnl_xml::Xml list = OpenPanel(host).List();
  std::vector<Record> records;
  for (const pnl_xml::XmlNode& entry : list.GetNodes("/doc/elem"))
    records.push_back(ToRecord(kListenFields, entry));
  return records;
}

Verb FrontdListVerb() {
  return {.name = "list",
          .summary = "Lists the listen addresses and their errors.",
          .ask = [](Context&) -> Question { return ListOf; },
          .lists = true,
          .examples = {"", "--node 192.0.2.7"},
          .fields = Declared(kListenFields)};
}

}  // namespace tools
