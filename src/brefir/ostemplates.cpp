#include "brefir/ostemplates.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "brefir/cache_update.h"
#include "brefir/layout.h"
#include "brefir/str_utils.h"
#include "pnl/date.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/job.h"
#include "pnl/log.h"
#include "pnl/task.h"
#include "pnl/test.h"

namespace ostemplate {
namespace {

pnl_log::Module log_module("ospnl");

using layout::kRootName;

constexpr int kSettingsTimeout = 30;  // seconds; the holder writes only a few small files

bool IsYes(const std::string& text) {
  return text == "yes";
}

// The common parts of `metainfo.xml` and an index element, for both records.

/// Reads `description`, the first element of that name, and those that follow it.
void AddDescriptions(pnl_xml::XmlNode description, StringMap& descriptions) {
  for (; description; description = description.Next()) {
    if (description.Name() != "description") continue;
    descriptions.insert_or_assign(description.GetProp("lang"), description.Str());
  }
}

}  // namespace

// --- Metadata

PnlVersion::PnlVersion(std::string version) {
  version.resize(std::min(version.find_first_not_of("0123456789."), version.size()));
  text_ = std::move(version);
  // Unsigned, because parts that are too large wrap around and are not refused.
  std::string_view rest = text_;
  const auto part = [&] { return static_cast<std::uint32_t>(str::Int(str::NextWord(rest, '.'))); };
  const std::uint32_t major = part();
  const std::uint32_t minor = part();
  const std::uint32_t patch = part();
  number_ = static_cast<std::int32_t>(major * 100000U + minor * 1000U + patch);
}

OsMetaInfo::OsMetaInfo() = default;
OsMetaInfo::OsMetaInfo(const OsMetaInfo&) = default;
OsMetaInfo::OsMetaInfo(OsMetaInfo&&) noexcept = default;
OsMetaInfo& OsMetaInfo::operator=(const OsMetaInfo&) = default;
OsMetaInfo& OsMetaInfo::operator=(OsMetaInfo&&) noexcept = default;
OsMetaInfo::~OsMetaInfo() = default;

std::string OsMetaInfo::GetDesc(const std::string& lang) const {
  auto found = descriptions.find(lang);
  if (found == descriptions.end()) found = descriptions.find("en");
  return found == descriptions.end() ? "" : found->second;
}

TemplateMacroInfo::TemplateMacroInfo() = default;
TemplateMacroInfo::TemplateMacroInfo(const TemplateMacroInfo&) = default;
TemplateMacroInfo::TemplateMacroInfo(TemplateMacroInfo&&) noexcept = default;
TemplateMacroInfo& TemplateMacroInfo::operator=(const TemplateMacroInfo&) = default;
TemplateMacroInfo& TemplateMacroInfo::operator=(TemplateMacroInfo&&) noexcept = default;
TemplateMacroInfo::~TemplateMacroInfo() = default;

std::optional<TemplateKey> TemplateKey::Parse(std::string_view text) {
  return layout::SplitKey<TemplateKey>(text);
}

std::string TemplateKey::Str() const {
  return layout::JoinKey(repository, name);
}

std::string OsKey2OsName(std::string key, bool with_repo) {
  const auto parts = TemplateKey::Parse(key);
  if (!parts) return key;
  return with_repo ? str::Format("%s (%s)", parts->name, parts->repository) : parts->name;
}

bool OsInstalledGood(const OsMetaInfo& info) {
  const std::string result = str::Trim(info.install_result);
  return result == "0" || str::Lower(result) == "ok";
}

namespace {

/// The child elements of a template that are read, sorted by size, so that a name is compared only
/// with those of its size.
constexpr std::array<std::string_view, 14> kChildNames = {
    "type",        "date",         "tags",           "macro",           "osname",
    "hddraid",     "support",      "filename",       "utcmtime",        "loaderefi64",
    "description", "sshpublickey", "install_result", "chpasswd_method",
};
static_assert(std::ranges::is_sorted(kChildNames, {}, &std::string_view::size));

/// The index of the first name of each size.
constexpr auto kChildSizes = [] {
  std::array<std::size_t, kChildNames.back().size() + 2> begins{};
  for (std::size_t size = 0; size < begins.size(); ++size) {
    while (begins[size] < kChildNames.size() && kChildNames[begins[size]].size() < size)
      ++begins[size];
  }
  return begins;
}();

/// The index of a name at compile time; an unknown name does not compile.
struct Child {
  consteval Child(const char* name) {  // NOLINT: converts from its name
    while (kChildNames.at(place) != name) ++place;
  }
  std::size_t place = 0;
};

/// The first child element of each name, found in one pass. An index has thousands of templates; a
/// search for each field would read their children many times.
class Children {
 public:
  explicit Children(const pnl_xml::XmlNode& node) {
    for (pnl_xml::XmlNode child = node.FirstChild(); child; child = child.Next()) {
      pnl_xml::XmlNode* const first = Find(child.Name());
      if (first != nullptr && !*first) *first = child;
    }
  }

  const pnl_xml::XmlNode& operator[](Child child) const { return nodes_[child.place]; }

 private:
  pnl_xml::XmlNode* Find(std::string_view name) {
    if (name.size() + 1 >= kChildSizes.size()) return nullptr;
    for (std::size_t i = kChildSizes[name.size()]; i < kChildSizes[name.size() + 1]; ++i) {
      if (kChildNames[i] == name) return &nodes_[i];
    }
    return nullptr;
  }

  std::array<pnl_xml::XmlNode, kChildNames.size()> nodes_;
};

}  // namespace

void Manage::FillMetaInfo(const pnl_xml::XmlNode& node, OsMetaInfo& info) {
  PNL_ENTRY(log_module);
  const Children children(node);
  info.name = children["osname"].Str();
  PNL_TRACE(log_module, "ostemplate '%s'", info.name.c_str());
  info.type = children["type"].Str();
  info.filename = children["filename"].Str();
  info.chpasswd_method = children["chpasswd_method"].Str();
  if (const pnl_xml::XmlNode result = children["install_result"]) {
    info.install_result = result.Str();
    info.install_result_type = result.GetProp("type");
  }
  if (const pnl_xml::XmlNode key = children["sshpublickey"]) {
    info.sshpublickey = IsYes(key.Str());
    info.sshpublickey_base64 = IsYes(key.GetProp("base64"));
  }
  info.utcmtime = children["utcmtime"].Str();
  info.date = children["date"].Str();
  info.loaderefi64 = static_cast<bool>(children["loaderefi64"]);
  info.macro = static_cast<bool>(children["macro"]);
  str::Split(children["tags"].Str(), ",", info.tags);
  info.hddraid = children["hddraid"].Str();
  FillSupport(children["support"], info);
  AddDescriptions(children["description"], info.descriptions);
}

void Manage::FillSupport(const pnl_xml::XmlNode& support, OsMetaInfo& info) const {
  const std::string own_name = str::Lower(name_);
  for (pnl_xml::XmlNode elem = support.FirstChild(); elem; elem = elem.Next()) {
    if (elem.Name() != "elem") continue;
    const std::string module = elem.Str();
    const std::string& lower = *info.compatible.insert(str::Lower(module)).first;
    PNL_TRACE(log_module, "compatible with '%s'", module.c_str());
    if (lower != own_name) continue;
    info.supported = true;
    if (!version_) continue;
    const PnlVersion demanded(elem.GetProp("version"));
    if (demanded) info.pnl_version = demanded.Str();
  }
}

namespace {

/// The integer of a child element, 0 when there is none.
int ReadInt(const pnl_xml::XmlNode& parent, std::string_view name) {
  const std::string text = str::Trim(parent.FindNode(name).Str());
  if (text.empty()) return 0;
  const std::string_view digits = std::string_view(text).substr(text.front() == '-' ? 1 : 0);
  if (!test::Numeric(digits) || std::to_string(str::Int(text)) != text) {
    throw pnl_err::Error("metainfo", "integer", std::string(name) + "='" + text + "'");
  }
  return str::Int(text);
}

/// Texts and switches.
void ReadTexts(const pnl_xml::XmlNode& root, OSTInfo& info) {
  info.osname = root.FindNode("osname").Str();
  info.chpasswd_method = root.FindNode("chpasswd_method").Str();
  info.sshpublickey = IsYes(root.FindNode("sshpublickey").Str());
  info.sshpublickey_base64 = IsYes(root.FindNode("sshpublickey").GetProp("base64"));
  utils::ForEach(kInstallationFields, [&](const auto& field) {
    auto& member = info.*field.member;
    using Member = std::decay_t<decltype(member)>;
    if constexpr (std::is_same_v<Member, std::string>) member = root.FindNode(field.name).Str();
    if constexpr (std::is_same_v<Member, bool>) member = IsYes(root.FindNode(field.name).Str());
  });
}

void ReadNumbers(const pnl_xml::XmlNode& root, OSTInfo& info) {
  info.rebootcount = ReadInt(root, "rebootcount");
  const pnl_xml::XmlNode observe = root.FindNode("observe");
  info.osinstalltimeout = ReadInt(observe, "osinstalltimeout");
  info.cfgrequesttimeout = ReadInt(observe, "cfgrequesttimeout");
}

void ReadCollections(const pnl_xml::Xml& xml, OSTInfo& info) {
  str::Split(xml.GetRoot().FindNode("tags").Str(), ",", info.tags);
  AddDescriptions(xml.GetRoot().FindNode("description"), info.descriptions);
  for (const pnl_xml::XmlNode& limit : xml.GetNodes("/*/limit/elem")) {
    info.limits[limit.GetProp("name")] = limit.Str();
  }
  for (const pnl_xml::XmlNode& url : xml.GetNodes("/*/externals/elem/url")) {
    info.externals.push_back(url.Str());
  }
}

bool HasChildElement(const pnl_xml::XmlNode& node) {
  pnl_xml::XmlNode child = node.FirstChild();
  while (child && !child.IsNode()) child = child.Next();
  return static_cast<bool>(child);
}

}  // namespace

OSTInfo::OSTInfo(const std::string& path) {
  bool has_data = false;
  try {
    const pnl_xml::XmlFile xml(path);
    has_data = HasChildElement(xml.GetRoot());
    ReadTexts(xml.GetRoot(), *this);
    ReadNumbers(xml.GetRoot(), *this);
    ReadCollections(xml, *this);
  } catch (const pnl_err::Error& error) {
    throw pnl_err::Error("metainfo_parse_error", path, error.what());
  }
  if (!has_data) throw pnl_err::Error("metainfo_no_data", path);
}

// --- Installed templates

std::string MetaInfoFile(const std::string& tree) {
  return pnl_file::ConcatPath(tree, layout::kMetaInfo);
}

std::vector<std::string> OwnFiles() {
  return {layout::kMacroValues, layout::kAutoupdate, layout::kRestrict};
}

pnl_file::Lock LockTemplate(const std::string& dir, const std::string& key) {
  return {pnl_file::ConcatPath(dir, key), 0};
}

pnl_file::Lock LockSettings(const std::string& dir, const std::string& key) {
  // No file of that name is made. It is not in the template's directory, which is replaced.
  const std::string path = pnl_file::ConcatPath(dir, key);
  const std::string name = layout::kSettingsLock + pnl_file::Name(path);
  return {pnl_file::ConcatPath(pnl_file::Folder(path), name), kSettingsTimeout};
}

// --- Catalogue

Manage::Manage(const std::string& name, const std::string& version, const std::string& dir,
               const std::string& builtin_location)
    : name_(name), version_(version), dir_(dir), builtin_location_(builtin_location) {}

bool Manage::GetTemplates(OsInfoMap& out, StringSet* failed) {
  PNL_ENTRY(log_module);
  const bool all = GetCachedTemplates(out, "", failed);
  GetInstalledTemplates(out, false);
  return all;
}

bool Manage::GetCachedTemplates(OsInfoMap& out, const std::string& repo, StringSet* failed) {
  PNL_ENTRY(log_module);
  OstRepo repositories(builtin_location_);
  bool all = pnl_file::Exists(kCacheDir) || repositories.UpdateCache(dir_, true, failed);
  for (const auto& [name, info] : repositories.repos) {
    if (!repo.empty() && repo != name) continue;
    if (!pnl_file::Exists(GetCacheFile(name))) WaitForUpdate(kCacheDir, log_module);
    if (ReadCachedIndex(name, out)) continue;
    if (failed != nullptr) failed->insert(name);
    all = false;
  }
  return all;
}

bool Manage::ReadCachedIndex(const std::string& repository, OsInfoMap& out) {
  std::optional<pnl_xml::Xml> index;
  try {
    // Trusted: it was checked strictly when it was fetched.
    index = pnl_xml::Xml::LoadFromFile(GetCacheFile(repository), pnl_xml::Check::kTrusted);
    index->RequireRoot(kRootName, GetCacheFile(repository));
  } catch (const pnl_err::Error& error) {
    PNL_LOG(log_module, 3, "Repository '%s' cannot be listed: %s", repository.c_str(),
            error.what());
    return false;
  }
  auto next = out.end();  // indexes are mostly sorted: a key usually follows the one before
  for (const pnl_xml::XmlNode& elem : index->GetNodes(layout::kElems)) {
    OsInfoMap read;  // moved as a map node: a record is large
    OsMetaInfo& info = read[""];
    info.repo = repository;
    FillMetaInfo(elem, info);
    if (!info.supported) continue;
    OsInfoMap::node_type node = read.extract(read.begin());
    node.key() = layout::JoinKey(repository, info.name);
    next = out.insert(next, std::move(node));
    if (&next->second != &info) next->second = std::move(info);  // the later of two
    ++next;
  }
  return true;
}

namespace {

/// A date of a template. A malformed date counts as absent, so that it does not end a listing.
std::optional<pnl_date::DateTime> ReadDate(const std::string& text, const std::string& key) {
  if (text.empty()) return std::nullopt;
  const auto date = pnl_date::DateTime::Parse(text);
  if (!date) PNL_LOG(log_module, 4, "Template '%s': bad date '%s'", key.c_str(), text.c_str());
  return date;
}

bool IsOlder(const OsMetaInfo& info, const std::string& key) {
  const auto date = ReadDate(info.date, key);
  const auto utcmtime = ReadDate(info.utcmtime, key);
  return date && utcmtime && *date < *utcmtime;
}

/// Marks a repository's entry with the state of its installed copy.
void MergeInstalled(OsMetaInfo& offered, const OsMetaInfo& installed, const std::string& key) {
  offered.installed = installed.installed;
  offered.date = installed.date;
  if (IsOlder(offered, key)) offered.update_available = true;
  offered.autoupdate = installed.autoupdate;
  offered.restrict = installed.restrict;
  offered.sshpublickey = installed.sshpublickey;
  offered.sshpublickey_base64 = installed.sshpublickey_base64;
  offered.macro = installed.macro;
  offered.loaderefi64 = installed.loaderefi64;
  offered.install_result = installed.install_result;
  offered.install_result_type = installed.install_result_type;
  offered.chpasswd_method = installed.chpasswd_method;
  offered.hddraid = installed.hddraid;
}

bool HasMetaInfo(const pnl_file::Dir& entry) {
  return entry.Info().IsDir() && pnl_file::Exists(MetaInfoFile(entry.FullName()));
}

}  // namespace

void Manage::GetInstalledTemplates(OsInfoMap& out, bool failed_only) {
  PNL_ENTRY(log_module);
  if (!pnl_file::Exists(dir_)) return;
  PNL_TRACE(log_module, "Scanning ostemplates in '%s'", dir_.c_str());
  for (pnl_file::Dir entry(dir_); entry.Read();) {
    try {
      if (HasMetaInfo(entry)) ReadInstalled(entry.FullName(), entry.name(), failed_only, out);
    } catch (const pnl_err::Error& error) {
      PNL_TRACE(log_module, "Skip bad xml");
      PNL_TRACE(log_module, "%s", error.what());
    }
  }
}

void Manage::ReadInstalled(const std::string& path, const std::string& key, bool failed_only,
                           OsInfoMap& out) {
  const std::string metainfo = MetaInfoFile(path);
  OsMetaInfo info;
  FillMetaInfo(pnl_xml::XmlFile(metainfo).GetRoot(), info);
  if (info.name.empty()) {
    PNL_TRACE(log_module, "skip malformed xml '%s'", metainfo.c_str());
    return;
  }
  info.installed = OsInstalledGood(info);
  if (info.installed == failed_only || !info.supported) return;
  info.autoupdate = pnl_file::Exists(pnl_file::ConcatPath(path, layout::kAutoupdate));
  info.restrict = pnl_file::Exists(pnl_file::ConcatPath(path, layout::kRestrict));
  const auto offered = out.find(key);
  if (offered != out.end()) {
    MergeInstalled(offered->second, info, key);
  } else {
    out.emplace(key, std::move(info));
  }
}

OsMetaInfo Manage::GetOsInfoFromCache(const std::string& key) {
  const std::string repository = TemplateKey::Parse(key).value_or(TemplateKey{key, ""}).repository;
  OsInfoMap templates;
  if (!GetCachedTemplates(templates, repository, nullptr)) {
    throw pnl_err::Error("ostemplate", "load_repo", repository);
  }
  const auto found = templates.find(key);
  if (found == templates.end()) throw pnl_err::Missed("ostemplate", key);
  return found->second;
}

void Manage::Install(const OsMetaInfo& info) {
  const OstRepo repositories(builtin_location_);
  if (!repositories.Exists(info.repo)) throw pnl_err::Missed("ospnl_repo", info.repo);
  InstallTask({info.repo, info.name}).Start(pnl_task::kDetached);
}

pnl_task::LongTask Manage::InstallTask(const TemplateKey& key) const {
  pnl_task::LongTask task(layout::kInstaller, key.Str(), "OST_INSTALL");
  task.SetParams({"-m", name_, "-v", version_.Str(), "-i", key.Str(), "-t", dir_, "-d",
                  GetCacheFile(key.repository)});
  return task;
}

namespace {

/// Moves the tree `path` to `aside` and removes it there.
void RemoveBy(const std::string& aside, const std::string& path) {
  const pnl_file::Lock rest(aside, kSettingsTimeout);
  pnl_file::Lock lock(path, 0);
  pnl_file::RecoverTree(path);
  pnl_file::Remove(aside);
  if (!pnl_file::Info(path, true).Exists()) return;
  try {
    pnl_file::Move(path, aside);
  } catch (const pnl_err::Error& error) {  // of older calls; the caller does not know them
    throw pnl_err::System("rename", path, error.code());
  }
  lock.Unlock();
  pnl_file::Remove(aside);
}

/// Removes the trees that failed calls have left, except those that another call is just removing.
void RemoveRest(const std::string& removed) {
  for (pnl_file::Dir entry(removed); entry.Read();) {
    try {
      const pnl_file::Lock lock(entry.FullName(), 0);
      pnl_file::Remove(entry.FullName());
    } catch (const pnl_err::Error& error) {
      if (pnl_file::IsTaken(error)) continue;
      PNL_LOG(log_module, 3, "'%s' is left: %s", entry.FullName().c_str(), error.what());
    }
  }
}

}  // namespace

void Manage::Remove(const std::string& key) {
  if (pnl_file::RealPath(dir_) != dir_) throw pnl_err::Access("file", dir_);
  std::string path = TemplatePath(key);
  PNL_LOG(log_module, 6, "Removing installed repository '%s'", path.c_str());
  while (path.ends_with('/')) path.pop_back();
  const std::string name = pnl_file::Name(path);
  if (path == dir_ || !test::PathComponent(name)) throw pnl_err::Access("file", path);
  const std::string removed = pnl_file::ConcatPath(dir_, layout::kRemovedDir);
  pnl_file::MkDir(removed);
  if (pnl_file::Exists(pnl_file::Folder(path))) {
    RemoveBy(pnl_file::ConcatPath(removed, name), path);
  }
  RemoveRest(removed);
}

std::string Manage::TemplatePath(const std::string& key) const {
  return pnl_file::ConcatPath(dir_, key);
}

// --- Macros

std::string Manage::GetMacroCustomValues(const std::string& key, StringMap& values) {
  const std::string path = TemplatePath(key);
  if (!pnl_file::Exists(path)) return "";
  std::string file = pnl_file::ConcatPath(path, layout::kMacroValues);
  if (pnl_file::Exists(file)) str::SplitConfig(pnl_file::ReadE(file), values, "\t", "");
  return file;
}

bool Manage::MacroPnlCheck(std::string list) {
  if (list.empty()) return true;
  const std::string own_name = str::Lower(name_);
  while (!list.empty()) {
    if (str::Lower(str::GetWord(list, ' ')) == own_name) return true;
  }
  return false;
}

void Manage::GetOsTemplateMacros(const std::string& key, TemplateMacroMap& out) {
  PNL_ENTRY(log_module);
  const std::string path = TemplatePath(key);
  if (!pnl_file::Exists(path)) {
    PNL_LOG(log_module, 4, "Template path '%s' does not exists", path.c_str());
    return;
  }
  const std::string metainfo = MetaInfoFile(path);
  if (!pnl_file::Exists(metainfo)) {
    PNL_LOG(log_module, 4, "Template description file '%s' does not exists", metainfo.c_str());
    return;
  }
  StringMap custom;
  GetMacroCustomValues(key, custom);
  const pnl_xml::XmlFile xml(metainfo);
  for (const pnl_xml::XmlNode& elem : xml.GetNodes("/doc/macro/elem")) {
    AddMacro(elem, custom, out);
  }
}

void Manage::AddMacro(const pnl_xml::XmlNode& elem, const StringMap& custom,
                      TemplateMacroMap& out) {
  const std::string name = elem.GetProp("name");
  if (!MacroPnlCheck(elem.GetProp("pnl"))) {
    PNL_TRACE(log_module, "macro '%s' skipped by pnl name", name.c_str());
    return;
  }
  if (out.contains(name)) {
    PNL_TRACE(log_module, "macro '%s' already defined in map, skipped", name.c_str());
    return;
  }
  TemplateMacroInfo info;
  info.readonly = IsYes(elem.GetProp("readonly"));
  info.oninstall = IsYes(elem.GetProp("oninstall"));
  const auto own = custom.find(name);
  info.custom = own != custom.end();
  info.value = info.custom ? own->second : elem.Str();
  for (pnl_xml::XmlNode child = elem.FirstChild(); child; child = child.Next()) {
    if (child.IsNode()) info.xml.GetRoot().AppendChild(child);
  }
  PNL_TRACE(log_module, "add macro '%s' = '%s'", name.c_str(), info.value.c_str());
  out.emplace(name, std::move(info));
}

void Manage::GetOsTemplateMacros(const std::string& key, StringMap& out) {
  TemplateMacroMap macros;
  GetOsTemplateMacros(key, macros);
  for (const auto& [name, info] : macros) {
    if (info.oninstall) out[name] = info.value;
  }
}

bool Manage::SetOsTemplateMacroValue(const std::string& key, const std::string& macro,
                                     const std::string& value) {
  PNL_ENTRY(log_module);
  return ChangeMacroValues(key, [&](StringMap& values) { values[macro] = value; });
}

void Manage::ResetOsTemplateMacroValue(const std::string& key, const std::string& macro) {
  PNL_ENTRY(log_module);
  ChangeMacroValues(key, [&](StringMap& values) { values.erase(macro); });
}

namespace {

/// Moves new macro values into place, while no update of the template does.
class MoveValues : public pnl_job::MoveFile {
 public:
  MoveValues(std::string dir, std::string key, std::string text, std::string tmp, std::string file)
      : MoveFile(tmp, file),
        dir_(std::move(dir)),
        key_(std::move(key)),
        text_(std::move(text)),
        tmp_(std::move(tmp)),
        file_(std::move(file)) {}

 private:
  void onCommit() override {
    pnl_file::Lock lock;
    bool there = false;
    try {
      lock = LockSettings(dir_, key_);
      there = pnl_file::Exists(tmp_);
    } catch (const pnl_err::Error&) {
      onRollback();
      throw;
    }
    if (there) {
      MoveFile::onCommit();
    } else {  // an update has replaced the tree, and the temporary file with it
      pnl_file::Write(file_, text_, pnl_file::kSecretMode);
    }
  }

  std::string dir_;
  std::string key_;
  std::string text_;
  std::string tmp_;
  std::string file_;
};

}  // namespace

bool Manage::ChangeMacroValues(const std::string& key,
                               const std::function<void(StringMap&)>& change) {
  StringMap values;
  const std::string file = GetMacroCustomValues(key, values);
  if (file.empty()) {
    PNL_LOG(log_module, 4, "Template '%s' does not exists", key.c_str());
    return false;
  }
  change(values);
  const std::string text = str::JoinParams(values, "\n", "\t");
  const std::string target = pnl_file::LinkTarget(file);  // a symbolic link stays
  pnl_file::Tmp tmp(target);
  tmp.Write(text);
  tmp.CopyAttrs(target, pnl_file::kSecretMode);
  tmp.Close();
  // The transaction owns the job, and the job the file.
  // NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks)
  new MoveValues(dir_, key, text, tmp.Str(), target);
  tmp.Release();
  return true;
  // NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)
}

}  // namespace ostemplate
