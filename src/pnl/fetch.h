#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "pnl/export.h"

/// Downloads. Progress is reported through pnl_progress; what its observer throws ends the download
/// and passes through.
///
///     if (!pnl_rpc::FetchFile(location + "/index.xml", cache_file, 0)) ...  // the log says why
namespace pnl_rpc {

/// What FetchFile accepts when its limit is 0; bytes. Large enough for a template archive.
inline constexpr std::uint64_t kFetchLimit = std::uint64_t{16} << 30;

/// The least that a body must bring, on average over each stall time-out from its first byte on:
/// bytes a second. What comes after the last whole one of these times may be slower.
inline constexpr std::uint64_t kFetchLeastRate = 1024;

/// Whether a download takes the address: one of its schemes and, but for files, a host.
[[nodiscard]] PNL_API bool CanFetch(const std::string& url);

/// The most that a download may take.
struct FetchOptions {
  std::uint64_t limit = 0;                           ///< bytes; 0 means kFetchLimit
  std::chrono::milliseconds connect_timeout{30000};  ///< for each connection, name service included
  std::chrono::milliseconds stall_timeout{60000};    ///< without a byte of the body
  std::chrono::milliseconds total_timeout{0};        ///< for all of it; 0 is no limit
};

/// Downloads `url` (http, https, ftp, file; TLS certificates are verified) into the file `path`.
///
/// Returns false on any failure, with the reason in the log (module "fetch", level 3): a status
/// other than success, a body shorter than announced, more than `limit` bytes, no connection or no
/// byte in time, less than kFetchLeastRate, more than 10 redirects or one that leaves http, https
/// and ftp (https alone when `url` is https), a `file:` address of anything but a regular file. A
/// name and password in `url` are neither logged nor reported. `path` appears (or is replaced, a
/// symbolic link itself; owner and mode of a file stay) only when the body is whole, with one
/// rename from a temporary file beside it; after a failure it is as before and no temporary is
/// left. Proxies come from the usual environment variables (curl(1)). Thread-safe. Throws
/// pnl_err::Error("file") only when the temporary file cannot be made, written or moved into place.
PNL_API bool FetchFile(const std::string& url, const std::string& path,
                       const FetchOptions& options);
/// The same with the usual time-outs. `limit` in bytes; 0 means kFetchLimit.
PNL_API bool FetchFile(const std::string& url, const std::string& path, std::uint64_t limit);

}  // namespace pnl_rpc
