#include "fleet/template_offer.h"

#include <utility>

#include "pnl/err.h"

namespace fleet::install {

ostemplate::OsMetaInfo ReadMeta(const TemplateRequest& request, const pnl_xml::XmlNode& element) {
  ostemplate::OsMetaInfo meta;
  ostemplate::Manage(request.module, request.version, request.dir, "").FillMetaInfo(element, meta);
  return meta;
}

Offer FindOffer(const TemplateRequest& request) {
  const pnl_xml::XmlFile index(request.index);
  index.RequireRoot("doc", request.index);
  pnl_xml::XmlNode found;
  Offer offer;
  for (const pnl_xml::XmlNode element : index.GetNodes("/doc/elem")) {
    ostemplate::OsMetaInfo meta = ReadMeta(request, element);
    if (!meta.supported || meta.name != request.key.name) continue;
    found = element;
    offer.meta = std::move(meta);
  }
  if (!found) throw pnl_err::Missed("ostemplate", request.key.Str());
  for (pnl_xml::XmlNode child = found.FirstChild(); child; child = child.Next()) {
    if (child.IsNode()) offer.info.GetRoot().AppendChild(child);
  }
  offer.base = index.GetRoot().GetProp("url");
  return offer;
}

void CheckVersion(const TemplateRequest& request, const Offer& offer) {
  const ostemplate::PnlVersion own(request.version);
  if (own && ostemplate::PnlVersion(offer.meta.pnl_version) > own) {
    throw pnl_err::Error("version", "too_old", offer.meta.pnl_version);
  }
}

}  // namespace fleet::install
