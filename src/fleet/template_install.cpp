#include "fleet/template_install.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "fleet/template_archive.h"
#include "fleet/template_offer.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/log.h"
#include "pnl/str.h"
#include "pnl/xml.h"

namespace fleet {
namespace {

using install::Offer;

pnl_log::Module log_module("template_install");

using ostemplate::MetaInfoFile;

/// The directory of an unpacked archive that holds the template.
std::string FindTree(const std::string& top) {
  if (pnl_file::Exists(MetaInfoFile(top))) return top;
  std::vector<std::string> entries;
  for (pnl_file::Dir dir(top); dir.Read();) entries.push_back(dir.FullName());
  const bool wrapped = entries.size() == 1 && !pnl_file::Info(entries[0], true).IsLink() &&
                       pnl_file::Exists(MetaInfoFile(entries[0]));
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

/// The archive's own description, or the index's. Name, modules and date always come from the
/// index, because the catalogue finds and compares templates by them.
void WriteMetaInfo(const Offer& offer, const std::string& tree) {
  const std::string path = MetaInfoFile(tree);
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
  for (const std::string& name : ostemplate::OwnFiles())
    pnl_file::Remove(pnl_file::ConcatPath(tree, name));
}

void CopyLink(const std::string& from, const std::string& to) {
  std::error_code error;
  std::filesystem::copy_symlink(from, to, error);
  if (error) throw pnl_err::System("symlink", to, error.value());
}

void CarryOver(const std::string& old_tree, const std::string& tree) {
  for (const std::string& name : ostemplate::OwnFiles()) {
    const std::string from = pnl_file::ConcatPath(old_tree, name);
    const std::string to = pnl_file::ConcatPath(tree, name);
    const pnl_file::Info info(from, true);
    if (info.IsLink()) CopyLink(from, to);
    if (!info.IsFile()) continue;
    pnl_file::Tmp tmp(to);
    tmp.Write(pnl_file::ReadE(from));
    tmp.CopyAttrs(from);
    tmp.Replace(to);
  }
}

// --- The whole

void InstallOffer(const TemplateRequest& request, const Offer& offer, const TemplateWatch& watch) {
  const std::string unpack = pnl_file::ConcatPath(request.dir, ".unpack");
  pnl_file::MkDir(unpack);
  const std::string prefix = pnl_file::ConcatPath(unpack, request.key.Str());
  pnl_file::TmpDir::RemoveStale(prefix);  // the caller holds the template's lock
  const pnl_file::TmpDir work(prefix);
  const std::string archive = pnl_file::ConcatPath(work.Str(), "archive");
  const std::string top = pnl_file::ConcatPath(work.Str(), "tree");

  install::Fetch(offer, archive, watch);
  pnl_file::MkDir(top);
  install::Unpack(archive, offer.meta.filename, top, watch);
  pnl_file::RemoveFile(archive);
  const std::string tree = FindTree(top);
  pnl_file::SecureTree(tree);
  WriteMetaInfo(offer, tree);
  RemoveOwn(tree);
  watch.check_stop();
  // Syncing the tree takes seconds; the administrator may change files meanwhile.
  pnl_file::Lock settings;
  pnl_file::PlaceTree(tree, request.Target(), [&] {
    settings = ostemplate::LockSettings(request.dir, request.key.Str());
    CarryOver(request.Target(), tree);
  });
}

/// Whether the target must stay as it is. A target whose state cannot be read may be good.
bool InstalledWell(const TemplateRequest& request) {
  const std::string path = MetaInfoFile(request.Target());
  if (!pnl_file::Exists(path)) return false;
  try {
    const pnl_xml::XmlFile info(path);
    return ostemplate::OsInstalledGood(install::ReadMeta(request, info.GetRoot()));
  } catch (const pnl_err::Error& error) {
    return error.type() != pnl_xml::kError;
  }
}

/// Makes a directory that shows the catalogue that the installation failed, and why.
void RecordFailure(const TemplateRequest& request, const std::optional<Offer>& offer,
                   const pnl_err::Error& error) {
  pnl_xml::Xml info;
  pnl_xml::XmlNode root = info.GetRoot();
  root.AppendChild("osname", request.key.name);
  if (offer) {
    root.AppendChild(offer->info.GetRoot().FindNode("support"));
  } else {
    root.AppendChild("support").AppendChild("elem", request.module);
  }
  std::string text = str::WithoutCredentials(error.what());  // everybody may read it
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  root.AppendChild("install_result", text).SetProp("type", error.type());
  pnl_file::MkDir(request.Target());
  info.Save(MetaInfoFile(request.Target()), true);
}

void NoteFailure(const TemplateRequest& request, const std::optional<Offer>& offer,
                 const pnl_err::Error& error) {
  try {
    if (!InstalledWell(request)) RecordFailure(request, offer, error);
  } catch (const pnl_err::Error& second) {
    PNL_LOG(log_module, 3, "The failure is not recorded: %s", second.what());
  }
}

}  // namespace

std::string TemplateRequest::Target() const {
  return pnl_file::ConcatPath(dir, key.Str());
}

void InstallTemplate(const TemplateRequest& request, const TemplateWatch& watch) {
  pnl_file::MkDir(request.dir);
  const pnl_file::Lock lock = ostemplate::LockTemplate(request.dir, request.key.Str());
  pnl_file::RecoverTree(request.Target());
  std::optional<Offer> offer;
  try {
    offer = install::FindOffer(request);
    install::CheckVersion(request, *offer);
    InstallOffer(request, *offer, watch);
  } catch (const pnl_err::Error& error) {
    NoteFailure(request, offer, error);
    throw;
  }
}

}  // namespace fleet
