#include "fleet/template_archive.h"

#include <fcntl.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>
#include <vector>

#include "pnl/err.h"
#include "pnl/fetch.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/progress.h"
#include "pnl/str.h"
#include "pnl/test.h"

namespace fleet::install {
namespace {

constexpr std::size_t kBlock = std::size_t{64} << 10;
/// The largest unpacked size. It limits the number of files too, because each has at least 512
/// bytes.
constexpr std::uint64_t kUnpackLimit = std::uint64_t{64} << 30;
/// The bytes and files that must stay free on the disk.
constexpr std::uint64_t kSpareBytes = std::uint64_t{64} << 20;
constexpr std::uint64_t kSpareFiles = 1024;

/// Throws before the disk of `dir` is completely full: that would stop other programs too.
void CheckSpace(const std::string& dir) {
  struct statvfs disk {};
  if (statvfs(dir.c_str(), &disk) != 0) throw pnl_err::System("statvfs", dir, errno);
  const bool full = disk.f_blocks != 0 && disk.f_bavail * disk.f_frsize < kSpareBytes;
  const bool no_files = disk.f_files != 0 && disk.f_favail < kSpareFiles;
  if (!full && !no_files) return;
  throw pnl_err::Error("archive", "space", dir)
      .add_param("message", "the disk of " + dir + " has almost no space left for " +
                                (full ? "data" : "files") + "; free some and install again");
}

/// The command that unpacks an archive of that name for tar. Archives for xz may need any amount of
/// memory, so that is limited.
std::string Unpacker(const std::string& filename) {
  static constexpr std::array<std::pair<const char*, const char*>, 6> kKinds = {{
      {".tar", "cat"},
      {".tar.gz", "gzip -dc"},
      {".tgz", "gzip -dc"},
      {".tar.xz", "xz -dc --memlimit-decompress=512MiB"},
      {".tar.bz2", "bzip2 -dc"},
      {".tar.zst", "zstd -dc"},
  }};
  for (const auto& [suffix, command] : kKinds) {
    if (filename.ends_with(suffix)) return command;
  }
  throw pnl_err::Error("archive", "kind", filename);
}

/// Percent-encodes characters that an address cannot have (RFC 3986 section 2.3).
std::string EncodePath(std::string_view path) {
  static constexpr std::string_view kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/";
  return str::PercentEncode(path, [](char c) { return kPlain.find(c) != std::string_view::npos; });
}

/// The archive's address. Its name comes from the repository and must be below the repository's
/// address.
std::string ArchiveUrl(const Offer& offer) {
  const std::string filename = offer.meta.filename;
  std::vector<std::string> parts;
  str::Split(filename, "/", parts);
  if (parts.empty() || !std::all_of(parts.begin(), parts.end(), test::PathComponent)) {
    throw pnl_err::Error("index", "filename", filename);
  }
  if (offer.base.empty()) {
    throw pnl_err::Error("index", "url")
        .add_param("message", "the index does not have the address (url) of the archives");
  }
  return pnl_file::ConcatPath(offer.base, EncodePath(filename));
}

/// The position of a program in its standard input; 0 when unknown.
std::uint64_t ReadPosition(int pid) try {
  std::string info = pnl_file::Read("/proc/" + std::to_string(pid) + "/fdinfo/0");
  str::GetWord(info, "pos:");
  return static_cast<std::uint64_t>(str::Int64(info));
} catch (const pnl_err::Error&) {  // needed for progress only
  return 0;
}

/// Passes the output of the unpacker to tar, block by block.
void Feed(pnl_proc::Execute& unpacker, pnl_proc::Execute& tar, const std::string& archive,
          const std::string& filename, const TemplateWatch& watch) {
  const std::uint64_t total = pnl_file::Info(archive).Size();
  std::string block(kBlock, '\0');
  std::uint64_t position = 0;
  for (std::uint64_t done = 0; tar.In();) {
    unpacker.Out().read(block.data(), static_cast<std::streamsize>(block.size()));
    const std::streamsize size = unpacker.Out().gcount();
    if (size == 0) break;
    done += static_cast<std::uint64_t>(size);
    if (done > kUnpackLimit) {
      throw pnl_err::Error("archive", "too_large", filename)
          .add_param("message", "it unpacks to more than " + std::to_string(kUnpackLimit) +
                                    " bytes, the limit for templates");
    }
    CheckSpace(pnl_file::Folder(archive));
    position = std::max(position, ReadPosition(unpacker.Pid()));
    watch.progress("unpack " + filename, position, total);
    tar.In().write(block.data(), size);
  }
}

std::string FirstLine(const std::string& path) {
  std::string start(1024, '\0');
  const pnl_file::Fd fd = pnl_file::Open(path, O_RDONLY);
  start.resize(pnl_file::ReadSome(fd.Get(), start.data(), start.size(), path));
  return str::Trim(str::GetWord(start, '\n'));
}

}  // namespace

void Fetch(const Offer& offer, const std::string& archive, const TemplateWatch& watch) {
  const std::string url = ArchiveUrl(offer);
  const std::string what = "fetch " + offer.meta.filename;
  const pnl_progress::Watch blocks([&](std::string_view, std::uint64_t done, std::uint64_t total) {
    CheckSpace(pnl_file::Folder(archive));
    watch.progress(what, done, total);
  });
  if (!pnl_rpc::FetchFile(url, archive, 0))
    throw pnl_err::Error("fetch", "file", str::WithoutCredentials(url));
}

/// tar itself keeps every member inside `tree`: it cuts leading "/" and "../" off names, and makes
/// links that lead elsewhere only after everything else, so that nothing is written through them.
/// Messages of both programs go to a file: a hostile archive could cause more of them than fit in
/// memory.
void Unpack(const std::string& archive, const std::string& filename, const std::string& tree,
            const TemplateWatch& watch) {
  const std::string log = tree + ".log";
  const std::string to_log = " 2>>" + pnl_proc::Escape(log);
  pnl_proc::Execute unpacker(
      "exec " + Unpacker(filename) + " <" + pnl_proc::Escape(archive) + to_log, pnl_proc::kNoInput);
  pnl_proc::Execute tar(
      "TAR_OPTIONS= LC_ALL=C exec tar --extract --file=- --no-same-owner --no-same-permissions "
      "--directory=" +
      pnl_proc::Escape(tree) + to_log);
  Feed(unpacker, tar, archive, filename, watch);
  const bool done = tar.Result() == 0 && unpacker.Result() == 0;
  watch.check_stop();
  if (!done) {
    throw pnl_err::Error("archive", "unpack", filename).add_param("message", FirstLine(log));
  }
}

}  // namespace fleet::install
