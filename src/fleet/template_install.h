#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "brefir/ostemplates.h"
#include "fleet/export.h"

/// Installs an OS template of a repository, or brings it up to date.
///
///     const fleet::TemplateRequest request = {.module = "panel", .version = "1.0",
///                                             .key = {"main", "Debian-12"}, .dir = "templates",
///                                             .index = "var/.oscache/main/metadata.xml"};
///     fleet::InstallTemplate(request, {.progress = Report, .check_stop = [] {}});
namespace fleet {

/// What is to be installed, and where.
struct FLEET_API TemplateRequest {
  std::string module;           ///< the panel module that the template is for
  std::string version;          ///< of that module
  ostemplate::TemplateKey key;  ///< its text has to be one path component
  std::string dir;              ///< of installed templates
  std::string index;            ///< the repository's index file

  std::string Target() const;  ///< the template's directory
};

/// Who watches the work. What these throw ends it, with everything cleaned up.
struct TemplateWatch {
  /// At every block: bytes done, of how many (0: not known).
  std::function<void(std::string_view what, std::uint64_t done, std::uint64_t total)> progress;
  std::function<void()> check_stop;  ///< between the steps
};

/// Chooses what the index offers, fetches the archive, unpacks it and puts it in its place:
///
///      DIR/.unpack/KEY.brefir-XXXXXX/archive   the archive as fetched
///      DIR/.unpack/KEY.brefir-XXXXXX/tree/     what it holds; becomes DIR/KEY in one step
///
/// As in the catalogue, the last of several elements of one name counts, and those that are not for
/// this module do not exist. The archive's name may lead down from the repository's address,
/// nowhere else. It may be anybody's: one that unpacks to more than 64 GiB is refused, and so is one
/// that would leave less than 64 MiB or 1024 files free on the disk.
///
/// A template's tree is what stands beside its metainfo.xml: at the archive's top level, or in the
/// one directory that is all of the top level. Without a metainfo.xml it is the top level, and the
/// index's description takes its place. An update keeps what the administrator made of the
/// template (ostemplate::OwnFiles).
///
/// What fails is thrown, with DIR/.unpack cleaned up: an update leaves the good template as it was,
/// a first installation a DIR/KEY whose metainfo.xml tells why.
///
///      pnl_err::Missed("ostemplate", key)    the index does not offer it
///      "file", "xml", "lock"                 of the index and the directories
///      "index"    "filename" "url"           what it says of the archive cannot be followed
///      "version"  "too_old"                  the template wants a newer module
///      "fetch"    "file"                     value: the address, without credentials
///      "archive"  "kind" "too_large" "space" "unpack" "metainfo"
///
/// Several threads and processes may install at a time; the same template one after the other.
FLEET_API void InstallTemplate(const TemplateRequest& request, const TemplateWatch& watch);

}  // namespace fleet
