#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "brefir/ostemplates.h"
#include "fleet/export.h"

/// Installs or updates an OS template of a repository.
///
///     const fleet::TemplateRequest request = {.module = "panel", .version = "1.0",
///                                             .key = {"main", "Debian-12"}, .dir = "templates",
///                                             .index = "var/.oscache/main/metadata.xml"};
///     fleet::InstallTemplate(request, {.progress = Report, .check_stop = [] {}});
namespace fleet {

/// The template to install, and the directories.
struct FLEET_API TemplateRequest {
  std::string module;           ///< the panel module that the template is for
  std::string version;          ///< of that module
  ostemplate::TemplateKey key;  ///< its text must be one path component
  std::string dir;              ///< of installed templates
  std::string index;            ///< the repository's index file

  std::string Target() const;  ///< the template's directory
};

/// Callbacks to watch the work. When one throws, the work ends and everything is cleaned up.
struct TemplateWatch {
  /// Called for each block, with the bytes done and in total (0: unknown).
  std::function<void(std::string_view what, std::uint64_t done, std::uint64_t total)> progress;
  std::function<void()> check_stop;  ///< called between the steps
};

/// Finds the template in the index, fetches its archive, unpacks it and moves it into place:
///
///      DIR/.unpack/KEY.brefir-XXXXXX/archive   the archive as fetched
///      DIR/.unpack/KEY.brefir-XXXXXX/tree/     what it holds; becomes DIR/KEY in one step
///
/// As in the catalogue, templates for other modules are ignored, and when a name occurs twice, the
/// last element counts. The archive must be below the repository's address. Its content is not
/// trusted: an archive that unpacks to more than 64 GiB is refused, and so is one that would leave
/// less than 64 MiB or 1024 files free on the disk.
///
/// The template's tree is the directory with metainfo.xml: the archive's top level, or the only
/// directory in the top level. Without a metainfo.xml it is the top level, and the description in
/// the index is used. An update keeps the administrator's files (ostemplate::OwnFiles).
///
/// After a failure DIR/.unpack is cleaned up. A failed update leaves a good template as it was; a
/// failed first installation leaves a DIR/KEY whose metainfo.xml has the reason. The errors:
///
///      pnl_err::Missed("ostemplate", key)    the template is not in the index
///      "file", "xml", "lock"                 of the index and the directories
///      "index"    "filename" "url"           the archive's name or address is not allowed
///      "version"  "too_old"                  the template needs a newer module
///      "fetch"    "file"                     value: the address, without passwords
///      "archive"  "kind" "too_large" "space" "unpack" "metainfo"
///
/// Several threads and processes may install at the same time. Installations of the same template
/// exclude each other.
FLEET_API void InstallTemplate(const TemplateRequest& request, const TemplateWatch& watch);

}  // namespace fleet
