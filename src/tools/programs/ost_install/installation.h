#pragma once

#include "tools/programs/ost_install/archive.h"
#include "tools/programs/ost_install/offer.h"

namespace ost_install {

/// Installs the template DIR/KEY of a repository, or brings it up to date:
///
///   DIR/.unpack/KEY.brefir-XXXXXX/archive   the archive as fetched
///   DIR/.unpack/KEY.brefir-XXXXXX/tree/     what it holds; becomes DIR/KEY in one step
///
/// A template's tree is what stands beside its metainfo.xml: at the archive's top level, or in the
/// one directory that is all of the top level. Without a metainfo.xml it is the top level, and the
/// index's description takes its place. An update keeps what the administrator made of the
/// template.
///
/// What fails is thrown, with DIR/.unpack cleaned up: an update leaves the good template as it was,
/// a first installation a DIR/KEY whose metainfo.xml tells why.
void Install(const Request& request, const Watch& watch);

}  // namespace ost_install
