#pragma once

#include <string>

#include "fleet/template_offer.h"

/// A template's archive: fetched and unpacked within bounds.
namespace fleet::install {

/// Fetches the offer's archive into the file `archive`. Its name comes from the repository: it may
/// lead down from the repository's address, nowhere else ("index", "filename"). Throws
/// pnl_err::Error("fetch", "file", address), the address without credentials.
void Fetch(const Offer& offer, const std::string& archive, const TemplateWatch& watch);

/// Unpacks `archive`, whose kind `filename` tells, into the directory `tree`. What the unpackers
/// complain about goes to the file `tree`.log. Throws pnl_err::Error("archive") with the objects
/// "kind", "too_large", "space" and "unpack", this one with their first complaint.
void Unpack(const std::string& archive, const std::string& filename, const std::string& tree,
            const TemplateWatch& watch);

}  // namespace fleet::install
