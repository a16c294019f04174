// ost_install -m MODULE -v VERSION -i KEY -t DIR -d INDEX
//
// Installs the template KEY of a repository, or brings it up to date, as DIR/KEY:
//
//   DIR/.unpack/KEY.brefir-XXXXXX/archive   the archive as fetched
//   DIR/.unpack/KEY.brefir-XXXXXX/tree/     what it holds; becomes DIR/KEY in one step
//
// A template's tree is what stands beside its metainfo.xml: at the archive's top level, or in the
// one directory that is all of the top level. Without a metainfo.xml it is the top level, and the
// index's description takes its place.
//
// Started by the library as a task of its own, so that progress goes to the task's state. Exit
// codes: 0 installed, 1 failed, 2 wrong command line.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brefir/cmdarg.h"
#include "brefir/ostemplates.h"
#include "pnl/err.h"
#include "pnl/fetch.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "pnl/progress.h"
#include "pnl/str.h"
#include "pnl/task.h"
#include "pnl/test.h"
#include "pnl/xml.h"
#include "tools/man_page.h"

namespace {

pnl_log::Module log_module("ost_install");

constexpr std::size_t kBlock = std::size_t{64} << 10;
/// The most that an archive may unpack to, which bounds its files too: each takes 512 bytes there.
constexpr std::uint64_t kUnpackLimit = std::uint64_t{64} << 30;
/// What stays free on the disk, for others: bytes and files.
constexpr std::uint64_t kSpareBytes = std::uint64_t{64} << 20;
constexpr std::uint64_t kSpareFiles = 1024;
constexpr const char* kMetaInfo = "metainfo.xml";
/// What the administrator made of a template: an update keeps it, an archive never brings it.
constexpr std::array<const char*, 3> kOwn = {"templatemacros.values", "autoupdate", "restrict"};

struct Options {
  std::string module;
  std::string version;
  std::string key;
  std::string dir;
  std::string index;

  std::string Target() const { return pnl_file::ConcatPath(dir, key); }
};

// --- Being stopped

volatile sig_atomic_t stop_signal = 0;

extern "C" void OnStopSignal(int number) {
  stop_signal = number;
}

/// SIGTERM and SIGINT end the work at the next block, with everything cleaned up; a second one ends
/// the process at once.
void CatchStopSignals() {
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int number : {SIGTERM, SIGINT}) sigaction(number, &action, nullptr);
}

void CheckStop() {
  if (stop_signal != 0) throw pnl_err::Error("stopped", "signal", str::Str(stop_signal));
}

/// Before the disk of `dir` is full to the last byte, which would stop others, too.
void CheckSpace(const std::string& dir) {
  struct statvfs disk {};
  if (statvfs(dir.c_str(), &disk) != 0) throw pnl_err::System("statvfs", dir, errno);
  const bool full = disk.f_blocks != 0 && disk.f_bavail * disk.f_frsize < kSpareBytes;
  const bool no_files = disk.f_files != 0 && disk.f_favail < kSpareFiles;
  if (!full && !no_files) return;
  throw pnl_err::Error("archive", "space", dir)
      .add_param("message", "the disk of " + dir + " has hardly any space left for " +
                                (full ? "data" : "files") + "; free some and install again");
}

/// Every piece of long work passes here.
void Progress(std::string_view what, std::uint64_t done, std::uint64_t total) {
  CheckStop();
  pnl_task::ReportProgress(what, done, total);
}

// --- The index

/// What the index says about a template.
struct Offer {
  pnl_xml::Xml info;  ///< the children of its element, under the root
  ostemplate::OsMetaInfo meta;
  std::string base;  ///< the repository's address
};

ostemplate::OsMetaInfo ReadMeta(const Options& options, const pnl_xml::XmlNode& element) {
  ostemplate::OsMetaInfo meta;
  ostemplate::Manage(options.module, options.version, options.dir, "").FillMetaInfo(element, meta);
  return meta;
}

std::string OsName(const Options& options) {
  return ostemplate::OsKey2OsName(options.key, false);
}

/// As in the catalogue, the last of several elements of one name counts, and those that are not for
/// this module do not exist.
Offer FindOffer(const Options& options) {
  const pnl_xml::XmlFile index(options.index);
  index.RequireRoot("doc", options.index);
  pnl_xml::XmlNode found;
  Offer offer;
  for (const pnl_xml::XmlNode element : index.GetNodes("/doc/elem")) {
    ostemplate::OsMetaInfo meta = ReadMeta(options, element);
    if (!meta.supported || meta.name != OsName(options)) continue;
    found = element;
    offer.meta = std::move(meta);
  }
  if (!found) throw pnl_err::Missed("ostemplate", options.key);
  for (pnl_xml::XmlNode child = found.FirstChild(); child; child = child.Next()) {
    if (child.IsNode()) offer.info.GetRoot().AppendChild(child);
  }
  offer.base = index.GetRoot().GetProp("url");
  return offer;
}

void CheckVersion(const Options& options, const Offer& offer) {
  const ostemplate::PnlVersion own(options.version);
  if (own && ostemplate::PnlVersion(offer.meta.pnl_version) > own) {
    throw pnl_err::Error("version", "too_old", offer.meta.pnl_version);
  }
}

// --- The archive

/// The command that turns an archive of that name into what tar reads. One for xz may ask for any
/// amount of memory.
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

/// Percent-encodes what an address cannot hold as it is (RFC 3986 section 2.3).
std::string EncodePath(std::string_view path) {
  static constexpr std::string_view kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/";
  std::string encoded;
  for (const char c : path) {
    encoded += kPlain.find(c) != std::string_view::npos
                   ? std::string(1, c)
                   : "%" + str::Upper(str::hex::Encode({&c, 1}));
  }
  return encoded;
}

/// The archive's address. Its name comes from the repository: it may lead down from the
/// repository's address, nowhere else.
std::string ArchiveUrl(const Offer& offer) {
  const std::string filename = offer.meta.filename;
  std::vector<std::string> parts;
  str::Split(filename, "/", parts);
  if (parts.empty() || !std::all_of(parts.begin(), parts.end(), test::PathComponent)) {
    throw pnl_err::Error("index", "filename", filename);
  }
  if (offer.base.empty()) throw pnl_err::Error("index", "url");
  return pnl_file::ConcatPath(offer.base, EncodePath(filename));
}

void Fetch(const Offer& offer, const std::string& archive) {
  const std::string url = ArchiveUrl(offer);
  const std::string what = "fetch " + offer.meta.filename;
  const pnl_progress::Watch watch([&](std::string_view, std::uint64_t done, std::uint64_t total) {
    CheckSpace(pnl_file::Folder(archive));
    Progress(what, done, total);
  });
  if (!pnl_rpc::FetchFile(url, archive, 0))
    throw pnl_err::Error("fetch", "file", str::WithoutCredentials(url));
}

/// How far a program has read its standard input; 0 when that cannot be told.
std::uint64_t ReadPosition(int pid) try {
  std::string info = pnl_file::Read("/proc/" + std::to_string(pid) + "/fdinfo/0");
  str::GetWord(info, "pos:");
  return static_cast<std::uint64_t>(str::Int64(info));
} catch (const pnl_err::Error&) {  // it is for the progress only
  return 0;
}

/// Writes what the unpacker makes of the archive into tar, block by block.
void Feed(pnl_proc::Execute& unpacker, pnl_proc::Execute& tar, const std::string& archive,
          const std::string& filename) {
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
                                    " bytes; no template needs that");
    }
    CheckSpace(pnl_file::Folder(archive));
    position = std::max(position, ReadPosition(unpacker.Pid()));
    Progress("unpack " + filename, position, total);
    tar.In().write(block.data(), size);
  }
}

std::string FirstLine(const std::string& path) {
  std::string start(1024, '\0');
  const pnl_file::Fd fd = pnl_file::Open(path, O_RDONLY);
  start.resize(pnl_file::ReadSome(fd.Get(), start.data(), start.size(), path));
  return str::Trim(str::GetWord(start, '\n'));
}

/// tar itself keeps every member inside `tree`: it cuts leading "/" and "../" off names, and makes
/// links that lead elsewhere only after everything else, so that nothing is written through them.
/// What both programs say goes to a file: a hostile archive could make them say more than the
/// memory holds.
void Unpack(const std::string& archive, const std::string& filename, const std::string& tree) {
  const std::string log = tree + ".log";
  const std::string to_log = " 2>>" + pnl_proc::Escape(log);
  pnl_proc::Execute unpacker(
      "exec " + Unpacker(filename) + " <" + pnl_proc::Escape(archive) + to_log, pnl_proc::kNoInput);
  pnl_proc::Execute tar(
      "TAR_OPTIONS= LC_ALL=C exec tar --extract --file=- --no-same-owner --no-same-permissions "
      "--directory=" +
      pnl_proc::Escape(tree) + to_log);
  Feed(unpacker, tar, archive, filename);
  const bool done = tar.Result() == 0 && unpacker.Result() == 0;
  CheckStop();
  if (!done) {
    throw pnl_err::Error("archive", "unpack", filename).add_param("message", FirstLine(log));
  }
}

/// The directory of an unpacked archive that holds the template.
std::string FindTree(const std::string& top) {
  if (pnl_file::Exists(pnl_file::ConcatPath(top, kMetaInfo))) return top;
  std::vector<std::string> entries;
  for (pnl_file::Dir dir(top); dir.Read();) entries.push_back(dir.FullName());
  const bool wrapped = entries.size() == 1 && !pnl_file::Info(entries[0], true).IsLink() &&
                       pnl_file::Exists(pnl_file::ConcatPath(entries[0], kMetaInfo));
  return wrapped ? entries[0] : top;
}

// --- The installed template

void RemoveChildren(pnl_xml::XmlNode root, std::string_view name) {
  while (pnl_xml::XmlNode child = root.FindNode(name)) child.Unlink();
}

void SetChild(pnl_xml::XmlNode root, std::string_view name, const std::string& text) {
  RemoveChildren(root, name);
  root.AppendChild(name, text);
}

/// The archive's own description, or the index's. In what makes the catalogue find the template
/// (name, modules) and tell its age the index is right in any case.
void WriteMetaInfo(const Offer& offer, const std::string& tree) {
  const std::string path = pnl_file::ConcatPath(tree, kMetaInfo);
  pnl_xml::Xml info = pnl_file::Exists(path) ? pnl_xml::Xml::LoadFromFile(path) : offer.info;
  pnl_xml::XmlNode root = info.GetRoot();
  if (root.Name() != "doc") throw pnl_err::Error("archive", "metainfo", root.Name());
  for (const char* name : {"osname", "support"}) {
    RemoveChildren(root, name);
    root.AppendChild(offer.info.GetRoot().FindNode(name));
  }
  SetChild(root, "date", offer.meta.utcmtime);
  SetChild(root, "install_result", "ok");
  info.Save(path, true);
}

void RemoveOwn(const std::string& tree) {
  for (const char* name : kOwn) pnl_file::Remove(pnl_file::ConcatPath(tree, name));
}

void CarryOver(const std::string& old_tree, const std::string& tree) {
  for (const char* name : kOwn) {
    const std::string from = pnl_file::ConcatPath(old_tree, name);
    if (!pnl_file::Info(from).IsFile()) continue;
    const std::string to = pnl_file::ConcatPath(tree, name);
    pnl_file::Tmp tmp(to);
    tmp.Write(pnl_file::ReadE(from));
    tmp.CopyAttrs(from);
    tmp.Replace(to);
  }
}

// --- The whole

void InstallOffer(const Options& options, const Offer& offer) {
  const std::string unpack = pnl_file::ConcatPath(options.dir, ".unpack");
  pnl_file::MkDir(unpack);
  const std::string prefix = pnl_file::ConcatPath(unpack, options.key);
  pnl_file::TmpDir::RemoveStale(prefix);  // the caller holds the template's lock
  const pnl_file::TmpDir work(prefix);
  const std::string archive = pnl_file::ConcatPath(work.Str(), "archive");
  const std::string top = pnl_file::ConcatPath(work.Str(), "tree");

  Fetch(offer, archive);
  pnl_file::MkDir(top);
  Unpack(archive, offer.meta.filename, top);
  pnl_file::RemoveFile(archive);
  const std::string tree = FindTree(top);
  pnl_file::SecureTree(tree);
  WriteMetaInfo(offer, tree);
  RemoveOwn(tree);
  CheckStop();
  // Syncing the tree takes seconds, in which the administrator goes on.
  pnl_file::Lock settings;
  pnl_file::PlaceTree(tree, options.Target(), [&] {
    settings = ostemplate::LockSettings(options.dir, options.key);
    CarryOver(options.Target(), tree);
  });
}

/// Whether the target has to be left as it is. One whose state cannot be read may be good.
bool InstalledWell(const Options& options) {
  const std::string path = pnl_file::ConcatPath(options.Target(), kMetaInfo);
  if (!pnl_file::Exists(path)) return false;
  try {
    const pnl_xml::XmlFile info(path);
    return ostemplate::OsInstalledGood(ReadMeta(options, info.GetRoot()));
  } catch (const pnl_err::Error& error) {
    return error.type() != "xml";
  }
}

/// Leaves a directory from which the catalogue learns that, and why, the installation failed.
void RecordFailure(const Options& options, const std::optional<Offer>& offer,
                   const pnl_err::Error& error) {
  pnl_xml::Xml info;
  pnl_xml::XmlNode root = info.GetRoot();
  root.AppendChild("osname", OsName(options));
  if (offer) {
    root.AppendChild(offer->info.GetRoot().FindNode("support"));
  } else {
    root.AppendChild("support").AppendChild("elem", options.module);
  }
  std::string text = str::WithoutCredentials(error.what());  // everybody may read it
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  root.AppendChild("install_result", text).SetProp("type", error.type());
  pnl_file::MkDir(options.Target());
  info.Save(pnl_file::ConcatPath(options.Target(), kMetaInfo), true);
}

void NoteFailure(const Options& options, const std::optional<Offer>& offer,
                 const pnl_err::Error& error) {
  try {
    if (!InstalledWell(options)) RecordFailure(options, offer, error);
  } catch (const pnl_err::Error& second) {
    PNL_LOG(log_module, 3, "The failure is not recorded: %s", second.what());
  }
}

void Install(const Options& options) {
  pnl_file::MkDir(options.dir);
  const pnl_file::Lock lock = ostemplate::LockTemplate(options.dir, options.key);
  pnl_file::RecoverTree(options.Target());
  std::optional<Offer> offer;
  try {
    offer = FindOffer(options);
    CheckVersion(options, *offer);
    InstallOffer(options, *offer);
  } catch (const pnl_err::Error& error) {
    NoteFailure(options, offer, error);
    throw;
  }
}

const tools::ManNotes kManNotes = {
    {{"DIR/KEY/metainfo.xml", "what the template is, and what came of its installation"},
     {"DIR/KEY/templatemacros.values", "the administrator's macro values, kept by updates"},
     {"DIR/KEY/autoupdate, DIR/KEY/restrict", "markers, kept by updates"},
     {"DIR/.unpack", "where archives are unpacked"},
     {"DIR/.replaced", "where the old template is for a moment, on file systems without exchange"},
     {"var/ost_install.log", "the log"}},
    {"brefirctl-template(1)", "templatemacros.values(5)"}};

Options ReadOptions(int argc, char** argv) {
  opts::Args args("ost_install",
                  "Installs an OS template of a repository, or brings it up to date.");
  args.Details(
          "It finds the template in the repository's index, fetches its archive, unpacks it below "
          "DIR/.unpack and moves it to DIR/KEY when it is whole. An update keeps the "
          "administrator's macro values and markers; one that fails leaves the installed template "
          "as it was. An archive that unpacks to more than 64 GiB is refused, and 64 MiB of the "
          "disk stay free. A first installation that fails leaves a DIR/KEY whose metainfo.xml "
          "tells why (install_result).\n'brefirctl template install' starts it as a task; SIGTERM "
          "or "
          "SIGINT ends it with everything cleaned up.")
      .Example(
          "sbin/ost_install -m panel -v 1.0 -i main__Debian-12 \\\n"
          "      -t /opt/panel/templates -d var/.oscache/main/metadata.xml");
  args.Option("man").Help("print the man page").Last();
  const auto option = [&](const char* name, char letter, const char* value, const char* help) {
    args.Option(name).Short(letter).Value(value).Help(help).Required();
  };
  option("module", 'm', "MODULE", "the panel module that the template is for");
  option("version", 'v', "VERSION", "the version of that module");
  option("key", 'i', "KEY", "the template: repository name, two underscores, OS name");
  option("dir", 't', "DIR", "the directory of installed templates");
  option("index", 'd', "INDEX", "the repository's index file");

  const opts::Values values = args.Parse(argc, argv);
  if (!values.EndedBy().empty()) {
    const std::string text =
        values.EndedBy() == "help" ? args.Usage() : tools::ManPage(args, kManNotes);
    pnl_file::WriteAll(STDOUT_FILENO, text, "standard output");
    exit(0);
  }
  return {values.Str("module"), values.Str("version"), values.Str("key"), values.Str("dir"),
          values.Str("index")};
}

void CheckKey(const std::string& key) {
  const std::size_t split = key.find("__");
  if (!test::PathComponent(key) || split == std::string::npos || split + 2 == key.size()) {
    throw pnl_err::Error("usage", "--key", key).add_param("message", "not a template key: " + key);
  }
}

int Fail(const pnl_err::Error& error) {
  const bool usage = error.type() == "usage";
  const std::string text = usage || error.type() == "file" || error.type() == "lock"
                               ? tools::ErrorText(error, tools::Format::kTable)
                               : error.what();
  fprintf(stderr, "ost_install: %s\n", str::WithoutCredentials(text).c_str());
  return usage ? 2 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  CatchStopSignals();
  umask(022);
  pnl_log::Echo(3);  // the task's log shall say why a download failed
  try {
    const Options options = ReadOptions(argc, argv);
    CheckKey(options.key);
    Install(options);
    return 0;
  } catch (const pnl_err::Error& error) {
    return Fail(error);
  } catch (const std::exception& error) {
    fprintf(stderr, "ost_install: %s\n", error.what());
    return 1;
  }
}
