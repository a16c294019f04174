#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "tools/programs/ost_install/offer.h"

/// A template's archive: fetched and unpacked within bounds. It may be anybody's: an archive that
/// unpacks to more than 64 GiB is refused, and so is one that would leave less than 64 MiB or 1024
/// files free on the disk.
namespace ost_install {

/// Who watches the work. What these throw ends it.
struct Watch {
  /// At every block: bytes done, of how many (0: not known).
  std::function<void(std::string_view what, std::uint64_t done, std::uint64_t total)> progress;
  std::function<void()> check_stop;  ///< between the steps
};

/// Fetches the offer's archive into the file `archive`. Its name comes from the repository: it may
/// lead down from the repository's address, nowhere else ("index", "filename"). Throws
/// pnl_err::Error("fetch", "file", address), the address without credentials.
void Fetch(const Offer& offer, const std::string& archive, const Watch& watch);

/// Unpacks `archive`, whose kind `filename` tells, into the directory `tree`. What the unpackers
/// complain about goes to the file `tree`.log. Throws pnl_err::Error("archive") with the objects
/// "kind", "too_large", "space" and "unpack", this one with their first complaint.
void Unpack(const std::string& archive, const std::string& filename, const std::string& tree,
            const Watch& watch);

}  // namespace ost_install
