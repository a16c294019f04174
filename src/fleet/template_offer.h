#pragma once

#include <string>

#include "fleet/template_install.h"
#include "pnl/xml.h"

/// Templates in a repository's index.
namespace fleet::install {

/// The data of a template in the index.
struct Offer {
  pnl_xml::Xml info;  ///< the children of its element, under the root
  ostemplate::OsMetaInfo meta;
  std::string base;  ///< the repository's address
};

/// The metadata of a template in `element`, as the catalogue reads it for the requested module.
[[nodiscard]] ostemplate::OsMetaInfo ReadMeta(const TemplateRequest& request,
                                              const pnl_xml::XmlNode& element);

/// Finds the template in the index. As in the catalogue, templates for other modules are ignored,
/// and when a name occurs twice, the last element counts. Throws pnl_err::Missed("ostemplate",
/// key), and "file" and "xml" for the index.
[[nodiscard]] Offer FindOffer(const TemplateRequest& request);

/// Throws pnl_err::Error("version", "too_old") for a template that needs a newer module.
void CheckVersion(const TemplateRequest& request, const Offer& offer);

}  // namespace fleet::install
