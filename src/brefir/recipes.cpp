#include "brefir/recipes.h"

#include <algorithm>
#include <array>
#include <utility>

#include "brefir/cache_update.h"
#include "brefir/layout.h"
#include "brefir/str_utils.h"
#include "pnl/fetch.h"
#include "pnl/log.h"
#include "pnl/proc.h"
#include "pnl/settings.h"
#include "pnl/test.h"

namespace recipe {
namespace {

pnl_log::Module log_module("recipes");

constexpr const char* kMethodSsh = "ssh";
constexpr const char* kMethodWinrm = "winrm";

pnl_err::Error Unreadable(const std::string& path, const std::string& reason) {
  return pnl_err::Error(kUnreadable, "file", path).add_param("reason", reason);
}

/// Does `work` on the file `path`; a failure means that the file cannot be read.
template <class Work>
auto Reading(const std::string& path, const Work& work) {
  try {
    return work();
  } catch (const pnl_err::Error& error) {
    throw Unreadable(path, error.what());
  }
}

}  // namespace

// --- Records

std::string AccessLevelToStr(AccessLevel level) {
  switch (level) {
    case kAccessNone:
      return "none";
    case kAccessAdmin:
      return "admin";
    case kAccessAny:
      return "any";
  }
  return "";
}

AccessLevel StrToAccessLevel(const std::string& text) {
  if (text.empty() || text == "any") return kAccessAny;
  return text == "admin" ? kAccessAdmin : kAccessNone;
}

std::optional<RecipeId> RecipeId::Parse(std::string_view text) {
  return layout::SplitKey<RecipeId>(text);
}

std::string RecipeId::Str() const {
  return layout::JoinKey(source, file);
}

RecipeInfo::RecipeInfo() = default;
RecipeInfo::RecipeInfo(const RecipeInfo&) = default;
RecipeInfo::RecipeInfo(RecipeInfo&&) noexcept = default;
RecipeInfo& RecipeInfo::operator=(const RecipeInfo&) = default;
RecipeInfo& RecipeInfo::operator=(RecipeInfo&&) noexcept = default;
RecipeInfo::~RecipeInfo() = default;

std::string RecipeInfo::FullName() const {
  return name + (revision.empty() ? "" : " rev." + revision) + " [" + repo + "]";
}

// --- Header

std::string_view RecipeParser::HeaderText(std::string_view line) {
  if (!line.starts_with('#') && !line.starts_with("REM")) return {};
  line.remove_prefix(std::min(line.find_first_not_of("# \t"), line.size()));
  return line;
}

namespace {

constexpr std::string_view kDescription = "description_";

HeaderKind KindOf(std::string_view token) {
  if (token == "metadata_end") return HeaderKind::kEnd;
  if (token == "recipe") return HeaderKind::kName;
  if (token == "tags") return HeaderKind::kTags;
  if (token == "revision") return HeaderKind::kRevision;
  return token.starts_with(kDescription) ? HeaderKind::kDescription : HeaderKind::kUnknown;
}

std::string_view Language(std::string_view description) {
  return description.substr(kDescription.size());
}

}  // namespace

HeaderLine RecipeParser::Classify(std::string_view line, bool in_block) {
  HeaderLine seen;
  if (!line.starts_with('#') && !line.starts_with("REM")) return seen;
  seen.kind = HeaderKind::kComment;
  seen.text = HeaderText(line);
  if (!in_block) {
    if (seen.text == "metadata_begin") seen.kind = HeaderKind::kBegin;
  } else if (!seen.text.empty()) {
    std::string_view rest = seen.text;
    seen.colon = rest.find(':') != std::string_view::npos;
    seen.token = str::TrimView(str::NextWord(rest, ':'));
    seen.value = str::TrimView(rest);
    seen.kind = KindOf(seen.token);
    if (seen.kind == HeaderKind::kDescription) seen.language = Language(seen.token);
  }
  return seen;
}

std::vector<std::string_view> RecipeParser::Tags(std::string_view value) {
  std::vector<std::string_view> tags;
  tags.reserve(1 + static_cast<std::size_t>(std::count(value.begin(), value.end(), ',')));
  while (!value.empty()) {
    const std::string_view piece = str::NextWord(value, ',');
    if (!piece.empty()) tags.push_back(str::TrimView(piece));
  }
  return tags;
}

bool RecipeParser::NextLine(std::string_view line) {
  const HeaderLine seen = Classify(line, in_block_);
  if (seen.kind == HeaderKind::kNoComment) return true;
  PNL_TRACE(log_module, "\tline '%s'", std::string(line).c_str());
  if (seen.text.empty()) {
    PNL_TRACE(log_module, "\t\tempty - skipping");
    return true;
  }
  PNL_TRACE(log_module, "\ttrimmed line '%s'", std::string(seen.text).c_str());
  if (seen.kind == HeaderKind::kBegin) {
    in_block_ = true;
    PNL_TRACE(log_module, "-- start parsing metadata");
  } else if (seen.kind == HeaderKind::kEnd) {
    PNL_TRACE(log_module, "-- end of metadata");
    return false;
  } else if (in_block_) {
    Token(seen.token, seen.value);
  }
  return true;
}

void RecipeParser::Token(std::string_view token, std::string_view value) {
  switch (KindOf(token)) {
    case HeaderKind::kName:
      info_.name = value;
      PNL_TRACE(log_module, "\tname: '%s'", info_.name.c_str());
      return;
    case HeaderKind::kTags:
      for (const std::string_view tag : Tags(value)) info_.tags.emplace(tag);
      PNL_TRACE(log_module, "\ttags: '%s'", str::Join(info_.tags, ",").c_str());
      return;
    case HeaderKind::kRevision:
      info_.revision = value;
      PNL_TRACE(log_module, "\trevision: '%s'", info_.revision.c_str());
      return;
    case HeaderKind::kDescription:
      info_.descriptions[std::string(Language(token))] = value;
      return;
    default:
      PNL_LOG(log_module, 4, "recipe '%s' - unknown metadata token '%s'", info_.path.c_str(),
              std::string(token).c_str());
  }
}

namespace {

/// Reads the lines of a script up to the end of its header. The header is usually near the start,
/// so the first blocks are small.
class ScriptReader {
 public:
  ScriptReader(const pnl_file::Fd& fd, const std::string& path) : fd_(fd), path_(path) {}

  void Parse(RecipeInfo& info) {
    RecipeParser parser(info);
    bool more = true;
    while (more) {
      std::string_view line;
      more = Next(line);
      more = parser.NextLine(str::TrimView(line)) && more;
    }
  }

 private:
  /// False when the line is the last: at the end of the file, or cut.
  bool Next(std::string_view& line) {
    std::size_t seen = 0;
    while (true) {
      const std::string_view there(buffer_.data() + begin_, end_ - begin_);
      const std::size_t size = there.find('\n', seen);
      if (size != std::string_view::npos) {
        line = there.substr(0, size);
        begin_ += size + 1;
        return true;
      }
      seen = there.size();
      if (seen > kMaxLine || !Fill()) {
        line = {buffer_.data() + begin_, std::min(seen, kMaxLine)};  // Fill has moved the data
        return false;
      }
    }
  }

  /// Reads one block more; false at the end of the file.
  bool Fill() {
    std::copy(buffer_.data() + begin_, buffer_.data() + end_, buffer_.data());
    end_ -= std::exchange(begin_, 0);
    const std::size_t size = std::min(block_, buffer_.size() - end_);
    const std::size_t got = pnl_file::ReadSome(fd_.Get(), buffer_.data() + end_, size, path_);
    end_ += got;
    block_ *= 2;
    return got > 0;
  }

  const pnl_file::Fd& fd_;
  const std::string& path_;
  std::array<char, kMaxLine + 1> buffer_;  // one byte more shows that a line is too long
  std::size_t begin_ = 0;                  // of the data not yet used
  std::size_t end_ = 0;
  std::size_t block_ = 1024;
};

void Parse(const pnl_file::OpenFile& file, RecipeInfo& info) {
  PNL_TRACE(log_module, "parsing '%s'", info.path.c_str());
  ScriptReader(file.fd, info.path).Parse(info);
}

}  // namespace

void ParseFile(RecipeInfo& info) {
  Reading(info.path, [&] { Parse(pnl_file::OpenRegular(info.path), info); });
}

std::string TruncateOutput(std::string_view text) {
  constexpr std::size_t kKept = 5120;
  if (text.size() > kKept) text.remove_prefix(text.size() - kKept);
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  std::string shown;
  for (std::size_t i = 0; i < text.size();) {
    if (byte(i) >= 128) {
      i += i + 1 < text.size() && byte(i + 1) >= 128 ? 3 : 2;
      continue;
    }
    if (text[i] == '\n' || (byte(i) >= 32 && byte(i) != 127)) shown += text[i];
    ++i;
  }
  return shown;
}

void Manage::ParseContent(RecipeInfo& info) const {
  const std::string content = info.content;
  RecipeParser parser(info);
  for (std::string_view rest = content; !rest.empty();) {
    if (!parser.NextLine(str::NextWord(rest, '\n'))) break;
  }
}

void Manage::SetMethod(RecipeInfo& info) const {
  PNL_ENTRY(log_module);
  const bool winrm = info.path.ends_with(".ps1") || info.path.ends_with(".bat");
  info.method = winrm ? kMethodWinrm : kMethodSsh;
  PNL_TRACE(log_module, "recipe '%s' exec method '%s'", info.name.c_str(), info.method.c_str());
}

// --- Repositories

namespace {

constexpr int kLockTimeout = 600;  // seconds; archives may be large

/// Fetches the archive into `dir`; its path.
std::string Fetch(const std::string& url, const std::string& dir) {
  const pnl_rpc::FetchOptions options{.limit = kArchiveLimit, .total_timeout = kArchiveTime};
  const std::string shown = str::WithoutCredentials(url);
  const std::string name = pnl_file::Name(shown);
  std::string archive = pnl_file::ConcatPath(dir, name);
  // The name becomes a file name here and must be valid as one.
  if (!test::PathComponent(name) || !pnl_rpc::FetchFile(url, archive, options)) {
    throw pnl_err::Error("fetch", "file", shown);
  }
  return archive;
}

[[noreturn]] void Refuse(const std::string& what, const std::string& reason) {
  PNL_LOG(log_module, 3, "extract failed: '%s'", what.c_str());
  throw pnl_err::Error("recipe", "extract", reason);
}

/// The archive is larger than a repository of scripts may be.
[[noreturn]] void RefuseSize() {
  Refuse("more than " + std::to_string(kUnpackLimit) + " bytes", "too_large");
}

/// Each member has at least 512 bytes, so that this limits their number too. When gzip cannot read
/// the archive, tar will report why.
void CheckSize(const std::string& archive) {
  pnl_proc::Execute gzip("exec gzip -dc " + pnl_proc::Escape(archive) + " 2>/dev/null",
                         pnl_proc::kNoInput);
  std::string block(std::size_t{64} << 10, '\0');
  for (std::uint64_t size = 0; gzip.Out();) {
    gzip.Out().read(block.data(), static_cast<std::streamsize>(block.size()));
    size += static_cast<std::uint64_t>(gzip.Out().gcount());
    if (size > kUnpackLimit) RefuseSize();
  }
}

/// tar itself keeps every member inside `dir`: it cuts leading "/" and "../" off names, and makes
/// links that lead elsewhere only after everything else, so that nothing is written through them.
/// Modes and owners of the archive are not used: there must never be a set-uid program here, not
/// even for a moment.
void Unpack(const std::string& archive, const std::string& dir) {
  pnl_proc::Execute tar("tar xvzf " + pnl_proc::Escape(archive),
                        pnl_proc::kMergeStderr | pnl_proc::kNoInput, dir,
                        {"LC_ALL=C", "TAR_OPTIONS=--no-same-owner --no-same-permissions"});
  const std::string output = tar.Str();
  if (const int code = tar.Result(); code != 0) Refuse(output, str::Str(code));
}

/// Files with holes may be larger than their archive, and readers hold them in memory.
void Secure(const std::string& tree) {
  try {
    if (pnl_file::SecureTree(tree) > kUnpackLimit) RefuseSize();
  } catch (const pnl_err::Access& error) {
    Refuse(error.what(), error.param("reason"));
  }
}

void UpdateRepo(const std::string& url, const std::string& target) {
  const pnl_file::TmpDir tmp(target);
  const std::string archive = Fetch(url, tmp);
  CheckSize(archive);
  Unpack(archive, tmp);
  pnl_file::RemoveFile(archive);
  Secure(tmp);
  pnl_file::PlaceTree(tmp, target);
}

}  // namespace

RecipeRepo::RecipeRepo()
    : Repo(layout::kRecipeKind,
           pnl_settings::Get("download_server") + "/OSTemplate/new/5.69/recipes/recipes.tar.gz") {}

RecipeRepo::~RecipeRepo() = default;

bool RecipeRepo::UpdateCache(const std::string& dir, bool /*force*/, StringSet* failed) {
  PNL_ENTRY(log_module);
  pnl_file::MkDir(dir);
  StringSet names;
  for (const auto& [name, info] : repos) names.insert(name);
  const auto update = [&](const std::string& name, const std::string& location) {
    const std::string target = pnl_file::ConcatPath(dir, name);
    // Another process may be updating: the last one wins.
    const pnl_file::Lock lock(target, kLockTimeout);
    pnl_file::TmpDir::RemoveStale(target, names);
    pnl_file::RecoverTree(target);
    UpdateRepo(location, target);
  };
  return ostemplate::UpdateEach(*this, dir, failed, log_module, update);
}

// --- Catalogue

bool TagMatch(const RecipeInfo& info, const StringSet& tags) {
  return std::any_of(tags.begin(), tags.end(),
                     [&](const std::string& tag) { return info.tags.contains(tag); });
}

Manage::Manage(const std::string& name, const std::string& directory)
    : name_(name), directory_(directory) {}

std::string Manage::RepoDir() const {
  return pnl_file::ConcatPath(directory_, layout::kRecipeRepoDir);
}

std::string Manage::LocalDir() const {
  return pnl_file::ConcatPath(directory_, layout::kRecipeLocalDir);
}

namespace {

/// Calls `list`, which adds the readable recipes of a source; failures are logged.
template <class Work>
void Listing(const std::string& source, StringSet* failed, const Work& list) {
  try {
    list();
  } catch (const pnl_err::Error& error) {
    PNL_LOG(log_module, 3, "Repository '%s' cannot be listed: %s", source.c_str(), error.what());
    if (failed != nullptr) failed->insert(source);
  }
}

}  // namespace

void Manage::List(RecipeMap& map, StringSet* failed_repos) const {
  PNL_ENTRY(log_module);
  GetFromRepos(map, failed_repos);
  Listing(kLocalSource, failed_repos, [&] { GetLocal(map); });
  ApplyLocalParams(map);
}

void Manage::GetFromRepos(RecipeMap& map, StringSet* failed_repos) const {
  RecipeRepo repositories;
  if (!pnl_file::Exists(pnl_file::ConcatPath(RepoDir(), ostemplate::kBuiltinRepo))) {
    repositories.UpdateCache(RepoDir(), true, nullptr);
  }
  for (const auto& entry : repositories.repos) {
    const std::string& name = entry.first;
    const std::string dir = pnl_file::ConcatPath(RepoDir(), name);
    if (!pnl_file::Exists(dir)) ostemplate::WaitForUpdate(RepoDir(), log_module);
    Listing(name, failed_repos, [&] { GetFromDir(dir, name, map); });
  }
}

void Manage::GetLocal(RecipeMap& map) const {
  if (pnl_file::Exists(LocalDir())) GetFromDir(LocalDir(), kLocalSource, map);
}

namespace {

/// False when it is not a recipe.
bool ReadEntry(const pnl_file::Dir& entry, RecipeInfo& info) {
  info.path = entry.FullName();
  Reading(info.path, [&] {
    const auto file = entry.OpenRegular();
    if (!file) return;
    info.mtime = file->info.MTime();
    Parse(*file, info);
  });
  return !info.name.empty();
}

}  // namespace

void Manage::GetFromDir(const std::string& directory, const std::string& source,
                        RecipeMap& map) const {
  PNL_ENTRY(log_module);
  constexpr int kAttempts = 5;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    RecipeMap found;
    std::optional<pnl_err::Error> unreadable;
    if (!ReadDir(directory, source, found, unreadable)) continue;
    found.merge(map);  // entries in both are taken from `found`
    map.swap(found);
    if (unreadable) throw pnl_err::Error(*unreadable);
    return;
  }
  PNL_LOG(log_module, 3, "'%s' is missed: it changes all the time", directory.c_str());
}

/// False when the directory was replaced meanwhile: its files may have been removed during the
/// listing. Stores the first file that cannot be read in `unreadable`.
bool Manage::ReadDir(const std::string& directory, const std::string& source, RecipeMap& map,
                     std::optional<pnl_err::Error>& unreadable) const {
  const std::string prefix = RecipeId{source, ""}.Str();
  pnl_file::Dir entry(directory);
  entry.Sort();  // so that each is inserted at the end of the map
  while (entry.Read()) {
    const auto added = map.try_emplace(map.end(), prefix + entry.name());
    RecipeInfo& info = added->second;
    bool is_recipe = false;
    try {
      is_recipe = ReadEntry(entry, info);
    } catch (const pnl_err::Error& error) {
      PNL_LOG(log_module, 3, "left out: %s", error.what());
      if (!unreadable) unreadable = error;
    }
    if (!is_recipe) {
      map.erase(added);
      continue;
    }
    info.id = added->first;
    info.repo = source;
    SetMethod(info);
  }
  return !entry.Replaced();
}

RecipeInfoPtr Manage::GetById(const std::string& id, bool with_content) const {
  return GetById(RecipeId::Parse(id).value_or(RecipeId{id, ""}), with_content);
}

RecipeInfoPtr Manage::GetById(const RecipeId& id, bool with_content) const {
  PNL_ENTRY(log_module);
  auto info = std::make_shared<RecipeInfo>();
  info->id = id.Str();
  info->repo = id.source;
  const std::string path = id.IsLocal() ? pnl_file::ConcatPath(LocalDir(), id.file)
                                        : pnl_file::ConcatPath(RepoDir(), id.source, id.file);
  info->path = pnl_file::RealPath(path);
  if (info->path.empty()) throw Unreadable(path, "there is no such file");
  Reading(info->path, [&] {
    const pnl_file::OpenFile opened = pnl_file::OpenRegular(info->path);
    info->mtime = opened.info.MTime();
    Parse(opened, *info);
    if (with_content) info->content = pnl_file::ReadE(info->path);
  });
  SetMethod(*info);
  ApplyLocalParams(info);
  return info;
}

RecipeInfoPtr Manage::FindByName(const std::string& name, const StringSet& tags,
                                 bool with_content) const {
  PNL_ENTRY(log_module);
  PNL_LOG(log_module, 6, "lookup for recipe named '%s' with one of tags '%s'", name.c_str(),
          str::Join(tags, ",").c_str());
  RecipeMap map;
  List(map, nullptr);
  const auto found = std::find_if(map.begin(), map.end(), [&](const auto& entry) {
    return entry.second.name == name && TagMatch(entry.second, tags);
  });
  if (found == map.end()) return nullptr;
  auto info = std::make_shared<RecipeInfo>(std::move(found->second));
  if (with_content) info->content = pnl_file::ReadE(info->path);
  ApplyLocalParams(info);
  return info;
}

bool Manage::Exists(const std::string& id) const {
  RecipeMap map;
  GetFromRepos(map, nullptr);
  Listing(kLocalSource, nullptr, [&] { GetLocal(map); });
  return map.contains(id);
}

bool Manage::Delete(const std::string& id) {
  PNL_ENTRY(log_module);
  const RecipeInfoPtr info = GetById(id, false);
  const bool existed = pnl_file::Exists(info->path);
  if (existed) pnl_file::RemoveFile(info->path);
  DeleteLocalParams(id);
  return existed;
}

// --- Local parameters

namespace {

constexpr const char* kAccess = "access";
constexpr const char* kOwner = "owner";

/// Empty when the file does not exist. A dangling link counts as a file, and is an error: otherwise
/// every recipe would be open.
std::optional<pnl_xml::Xml> LoadParams(const std::string& path) {
  if (!pnl_file::Info(path, true).Exists()) return std::nullopt;
  pnl_xml::Xml xml = pnl_xml::Xml::LoadFromFile(path);
  xml.RequireRoot(layout::kRootName, path);
  return xml;
}

pnl_xml::XmlNode FindElem(const pnl_xml::Xml& xml, const std::string& id) {
  return xml.GetNode(layout::kElems + ("[@name=" + pnl_xml::EscapePropValue(id) + "]"));
}

}  // namespace

std::string Manage::ParamsFile() const {
  return pnl_file::ConcatPath(directory_, layout::kRecipeParams);
}

void Manage::SetLocalParam(const std::string& id, const std::string& name,
                           const std::string& value) {
  PNL_ENTRY(log_module);
  const std::string path = ParamsFile();
  const pnl_xml::Xml xml = LoadParams(path).value_or(pnl_xml::Xml());
  pnl_xml::XmlNode elem = FindElem(xml, id);
  if (!elem) {
    elem = xml.GetRoot().AppendChild("elem");
    elem.SetProp("name", id);
  }
  if (pnl_xml::XmlNode child = elem.FindNode(name)) {
    child.SetText(value);
  } else {
    elem.AppendChild(name, value);
  }
  xml.Save(path, true);
}

void Manage::SetAccessLevel(const std::string& id, AccessLevel level) {
  SetLocalParam(id, kAccess, AccessLevelToStr(level));
}

void Manage::SetOwner(const std::string& id, const std::string& owner) {
  SetLocalParam(id, kOwner, owner);
}

void Manage::DeleteLocalParams(const std::string& id) {
  PNL_ENTRY(log_module);
  const auto xml = LoadParams(ParamsFile());
  if (!xml) return;
  if (pnl_xml::XmlNode elem = FindElem(*xml, id)) elem.Unlink();
  xml->Save(ParamsFile(), false);
}

void Manage::ApplyLocalParams(const pnl_xml::XmlNode& node, RecipeInfo& info) const {
  info.access = StrToAccessLevel(node.FindNode(kAccess).Str());
  info.owner = node.FindNode(kOwner).Str();
}

void Manage::ApplyLocalParams(RecipeInfoPtr& info) const {
  const auto xml = LoadParams(ParamsFile());
  if (!xml) return;
  if (const pnl_xml::XmlNode elem = FindElem(*xml, info->id)) ApplyLocalParams(elem, *info);
}

void Manage::ApplyLocalParams(RecipeMap& map) const {
  const auto xml = LoadParams(ParamsFile());
  if (!xml) return;
  for (const pnl_xml::XmlNode& elem : xml->GetNodes(layout::kElems)) {
    const auto found = map.find(elem.GetProp("name"));
    if (found != map.end()) ApplyLocalParams(elem, found->second);
  }
}

}  // namespace recipe
