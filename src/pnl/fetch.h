#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "pnl/export.h"

/// Downloads. Progress is reported through pnl_progress. When its observer throws, the download
/// ends and the caller gets that exception.
///
///     if (!pnl_rpc::FetchFile(location + "/index.xml", cache_file, 0)) ...  // the log says why
namespace pnl_rpc {

/// What FetchFile accepts when its limit is 0; bytes. Large enough for a template archive.
inline constexpr std::uint64_t kFetchLimit = std::uint64_t{16} << 30;

/// The lowest accepted rate of a body, in bytes a second. It is an average over each stall
/// time-out, counted from the first byte. The end of the body, after the last full time-out, may be
/// slower.
inline constexpr std::uint64_t kFetchLeastRate = 1024;

/// Whether the address can be downloaded: it has one of the schemes of FetchFile and, except for
/// file, a host.
[[nodiscard]] PNL_API bool CanFetch(const std::string& url);

/// The limits of a download.
struct FetchOptions {
  std::uint64_t limit = 0;                           ///< bytes; 0 means kFetchLimit
  std::chrono::milliseconds connect_timeout{30000};  ///< for each connection, name service included
  std::chrono::milliseconds stall_timeout{60000};    ///< longest time without a byte
  std::chrono::milliseconds total_timeout{0};        ///< for all of it; 0 is no limit
};

/// Downloads `url` (http, https, ftp, file; TLS certificates are verified) into the file `path`.
///
/// Returns false on any failure, with the reason in the log (module "fetch", level 3). Failures
/// are: a status other than success, a body shorter than announced, more than `limit` bytes, no
/// connection or no byte within the time-outs, a rate below kFetchLeastRate, more than 10
/// redirects, a redirect to another scheme than http, https and ftp (or from https to another one),
/// and a `file:` address that is not a regular file. A name and password in `url` are neither
/// logged nor reported.
///
/// `path` appears, or is replaced, only when the body is complete: by one rename of a temporary
/// file beside it. After a failure it is as before, and no temporary file is left. A symbolic link
/// at `path` is replaced itself; a replaced file keeps its owner and mode. Proxies come from the
/// usual environment variables (curl(1)). Thread-safe. Throws pnl_err::Error("file") only when the
/// temporary file cannot be made, written or moved.
PNL_API bool FetchFile(const std::string& url, const std::string& path,
                       const FetchOptions& options);
/// The same with the usual time-outs. `limit` in bytes; 0 means kFetchLimit.
PNL_API bool FetchFile(const std::string& url, const std::string& path, std::uint64_t limit);

}  // namespace pnl_rpc
