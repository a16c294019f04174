// Metadata of templates: from XML into records, and written XML back.

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "brefir/ostemplates.h"
#include "check.h"
#include "pnl/err.h"

namespace {

constexpr const char* kFile = "metadata.xml";

auto Fields(const ostemplate::OsMetaInfo& info) {
  return std::tie(info.name, info.type, info.compatible, info.tags, info.utcmtime, info.date,
                  info.descriptions, info.filename, info.supported, info.sshpublickey,
                  info.sshpublickey_base64, info.macro, info.loaderefi64, info.pnl_version,
                  info.install_result, info.install_result_type, info.chpasswd_method,
                  info.hddraid);
}

/// The record of the root, then those of an index.
std::vector<ostemplate::OsMetaInfo> Records(const pnl_xml::Xml& xml) {
  ostemplate::Manage manage("nodemgr", "5.275.0", "templates", "");
  std::vector<ostemplate::OsMetaInfo> records(1);
  manage.FillMetaInfo(xml.GetRoot(), records.front());
  for (const pnl_xml::XmlNode& elem : xml.GetNodes("/doc/elem"))
    manage.FillMetaInfo(elem, records.emplace_back());
  return records;
}

bool SameRecords(const pnl_xml::Xml& a, const pnl_xml::Xml& b) {
  const auto of_a = Records(a);
  const auto of_b = Records(b);
  return std::equal(of_a.begin(), of_a.end(), of_b.begin(), of_b.end(),
                    [](const auto& x, const auto& y) { return Fields(x) == Fields(y); });
}

void CheckWritten(const pnl_xml::Xml& xml, bool indented) {
  const std::string written = xml.Str(indented);
  const pnl_xml::Xml again(written);
  fuzz::Check(again.Str(indented) == written, "what is written loads again");
  fuzz::Check(SameRecords(again, xml), "with the same records");
}

/// An index as the cache keeps it: the quick reader sees what the strict one does.
void CheckCached(pnl_xml::Xml index) {
  index.GetRoot().SetProp("url", "http://templates.example.net/main");
  fuzz::Put(kFile, index.Str(true));
  const pnl_xml::XmlFile cached(kFile, pnl_xml::Check::kTrusted);
  fuzz::Check(SameRecords(cached, index), "the cached index");
}

void CheckFullRecord(std::string_view text) {
  fuzz::Put(kFile, text);
  try {
    const ostemplate::OSTInfo info(kFile);
    const auto record = Records(pnl_xml::XmlFile(kFile)).front();
    fuzz::Check(info.osname == record.name && info.tags == record.tags &&
                    info.descriptions == record.descriptions,
                "both records agree");
  } catch (const pnl_err::Error& error) {
    fuzz::Check(error.type().starts_with("metainfo_"), "the full record's errors");
  }
}

/// What may be put in comes out again, as text and as attribute.
void CheckPutIn(std::string_view text) {
  pnl_xml::Xml xml;
  try {
    xml.GetRoot().AppendChild("description", text).SetProp("lang", text);
    xml.GetRoot().AppendChild("tags", text);
  } catch (const pnl_err::Error& error) {
    fuzz::Check(error.object() == "text", "what XML cannot hold");
    return;
  }
  const auto record = Records(pnl_xml::Xml(xml.Str(true))).front();
  fuzz::Check(record.descriptions == StringMap{{std::string(text), std::string(text)}},
              "what was put in");
  CheckWritten(xml, false);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = fuzz::Text(data, size);
  CheckPutIn(text);
  const auto xml = fuzz::ReadXml(text);
  CheckFullRecord(text);
  if (!xml) return 0;
  CheckWritten(*xml, false);
  CheckWritten(*xml, true);
  CheckCached(*xml);
  return 0;
}
