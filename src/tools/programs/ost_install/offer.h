#pragma once

#include <string>

#include "brefir/ostemplates.h"
#include "pnl/xml.h"

/// The installer of OS templates, in parts: what a repository offers (this one), its archive, and
/// the installation.
namespace ost_install {

/// What is to be installed, and where.
struct Request {
  std::string module;           ///< the panel module that the template is for
  std::string version;          ///< of that module
  ostemplate::TemplateKey key;  ///< its text has to be one path component
  std::string dir;              ///< of installed templates
  std::string index;            ///< the repository's index file

  std::string Target() const;  ///< the template's directory
};

/// What the index says about a template.
struct Offer {
  pnl_xml::Xml info;  ///< the children of its element, under the root
  ostemplate::OsMetaInfo meta;
  std::string base;  ///< the repository's address
};

/// The description of a template in `element`, as the catalogue reads it for that module.
[[nodiscard]] ostemplate::OsMetaInfo ReadMeta(const Request& request,
                                              const pnl_xml::XmlNode& element);

/// The template in the index. As in the catalogue, the last of several elements of one name counts,
/// and those that are not for this module do not exist. Throws pnl_err::Missed("ostemplate", key),
/// and "file" and "xml" for the index.
[[nodiscard]] Offer FindOffer(const Request& request);

/// Throws pnl_err::Error("version", "too_old") for a template that wants a newer module.
void CheckVersion(const Request& request, const Offer& offer);

}  // namespace ost_install
