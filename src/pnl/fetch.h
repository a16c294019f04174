#pragma once

#include <cstdint>
#include <string>

#include "pnl/export.h"

namespace pnl_rpc {

/// What FetchFile accepts when its limit is 0; bytes. Large enough for a template archive.
inline constexpr std::uint64_t kFetchLimit = std::uint64_t{16} << 30;

/// Downloads `url` (http, https, ftp, file; TLS certificates are verified) into the file `path`.
///
/// `limit` is the most that is accepted, in bytes; 0 means kFetchLimit. Returns false on any
/// failure, with the reason in the log (module "fetch", level 3): an error status, a body shorter
/// than announced, more than `limit` bytes, no connection within 30 s, 60 s without a byte, more
/// than 10 redirects or one that leaves http, https or ftp. `path` appears (or is replaced) only
/// when the body is whole, with one rename from a temporary file beside it; after a failure it is
/// as before and no temporary is left. Proxies come from the usual environment variables (curl(1)).
/// Progress is reported through pnl_progress. Thread-safe. Throws pnl_err::Error("file") only when
/// the temporary file cannot be made, written or moved into place.
PNL_API bool FetchFile(const std::string& url, const std::string& path, std::uint64_t limit);

}  // namespace pnl_rpc
