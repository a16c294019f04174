#pragma once

#include <string>

#include "fleet/template_install.h"
#include "pnl/xml.h"

/// What a repository offers.
namespace fleet::install {

/// What the index says about a template.
struct Offer {
  pnl_xml::Xml info;  ///< the children of its element, under the root
  ostemplate::OsMetaInfo meta;
  std::string base;  ///< the repository's address
};

/// The description of a template in `element`, as the catalogue reads it for that module.
[[nodiscard]] ostemplate::OsMetaInfo ReadMeta(const TemplateRequest& request,
                                              const pnl_xml::XmlNode& element);

/// The template in the index. As in the catalogue, the last of several elements of one name counts,
/// and those that are not for this module do not exist. Throws pnl_err::Missed("ostemplate", key),
/// and "file" and "xml" for the index.
[[nodiscard]] Offer FindOffer(const TemplateRequest& request);

/// Throws pnl_err::Error("version", "too_old") for a template that wants a newer module.
void CheckVersion(const TemplateRequest& request, const Offer& offer);

}  // namespace fleet::install
