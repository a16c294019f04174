#pragma once

#include <string>

#include "fleet/template_offer.h"

/// Fetches and unpacks a template's archive, with limits.
namespace fleet::install {

/// Fetches the offer's archive into the file `archive`. The name of the archive comes from the
/// repository and must be below the repository's address: otherwise throws ("index", "filename").
/// Throws pnl_err::Error("fetch", "file", address), the address without passwords.
void Fetch(const Offer& offer, const std::string& archive, const TemplateWatch& watch);

/// Unpacks `archive` into the directory `tree`; the ending of `filename` selects the format.
/// Messages of the unpacking programs go to the file `tree`.log. Throws pnl_err::Error("archive")
/// with the object "kind", "too_large", "space", or "unpack" (with their first message).
void Unpack(const std::string& archive, const std::string& filename, const std::string& tree,
            const TemplateWatch& watch);

}  // namespace fleet::install
