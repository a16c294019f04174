#include "fleet/package_edits.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "brefir/installer.h"
#include "pnl/err.h"
#include "pnl/fetch.h"
#include "pnl/file.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace fleet {
namespace {

void RequireFamily(const Draft& draft, const std::string& about) {
  if (draft.Seen().family == PackageFamily::kUnknown)
    draft.Refuse(about,
                 "neither of the Red Hat nor of the Debian family; other systems are not "
                 "supported");
}

// --- Held packages

constexpr const char* kDpkgStatus = "/var/lib/dpkg/status";

/// The plugin that holds packages: yum's and dnf's.
struct LockPlugin {
  const char* config;
  const char* list;
};
constexpr LockPlugin kLockPlugins[] = {
    {"/etc/dnf/plugins/versionlock.conf", "/etc/dnf/plugins/versionlock.list"},
    {"/etc/yum/pluginconf.d/versionlock.conf", "/etc/yum/pluginconf.d/versionlock.list"}};

/// The first word of the package's status, which is what is wanted of it: "hold", "install".
std::string WantedOf(std::string_view status, const std::string& name) {
  bool is_it = false;
  while (!status.empty()) {
    const std::string_view line = str::NextWord(status, '\n');
    if (line.empty()) is_it = false;
    if (line == "Package: " + name) is_it = true;
    if (!is_it || !line.starts_with("Status: ")) continue;
    std::string_view words = line.substr(line.find(' ') + 1);
    std::string wanted(str::NextWord(words, ' '));
    if (words.ends_with(" installed")) return wanted;
  }
  return "";
}

/// The name in "0:NAME-VERSION-RELEASE.*" or "NAME-0:VERSION-RELEASE.*".
std::string LockedName(std::string_view line) {
  const std::size_t digits = line.find_first_not_of("0123456789");
  if (digits != 0 && digits != std::string_view::npos && line[digits] == ':')
    line.remove_prefix(digits + 1);
  for (int part = 0; part < 2; ++part) {
    const std::size_t dash = line.rfind('-');
    if (dash == std::string_view::npos) return "";
    line = line.substr(0, dash);
  }
  return std::string(line);
}

bool IsLocked(std::string_view list, const std::string& name) {
  while (!list.empty())
    if (LockedName(str::NextWord(list, '\n')) == name) return true;
  return false;
}

bool IsHeldByApt(const Draft& draft, const std::string& name) {
  const std::string wanted = WantedOf(draft.Text(kDpkgStatus).value_or(""), name);
  if (wanted.empty()) draft.Absent(name, "package '" + name + "' is not installed");
  return wanted == "hold";
}

bool IsHeldByYum(const Draft& draft, const std::string& name) {
  for (const auto& [config, list] : kLockPlugins) {
    if (draft.File(config).kind != PathKind::kFile) continue;
    return IsLocked(draft.Text(list).value_or(""), name);
  }
  draft.Absent(name,
               "'" + name +
                   "' cannot be held: yum has no plugin versionlock there; install the package "
                   "yum-plugin-versionlock, with dnf python3-dnf-plugin-versionlock");
}

// --- Repositories

constexpr const char* kArmor = "-----BEGIN PGP";
constexpr const char* kAptKey = "/etc/apt/trusted.gpg.d/velkor.gpg";
constexpr const char* kEpel = "epel-release";

std::string Fetched(const std::string& url) {
  const pnl_file::Tmp copy("/tmp/repo");
  if (pnl_rpc::FetchFile(url, copy, velkor_repo::kRepoFileLimit)) return pnl_file::ReadE(copy);
  const std::string shown = str::WithoutCredentials(url);
  throw pnl_err::Error("fetch", "file", shown)
      .add_param("message", "'" + shown + "' could not be fetched; -v shows why");
}

/// The bytes of an armored key: base64 between an empty line and the checksum. apt reads armored ones
/// only since 1.4.
std::string Dearmored(std::string_view text) {
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bytes;
  std::uint32_t bits = 0;
  int count = 0;
  bool begun = false;
  while (!text.empty()) {
    const std::string line = str::Trim(std::string(str::NextWord(text, '\n')));
    if (begun && (line.starts_with('=') || line.starts_with('-'))) break;
    if (line.empty()) begun = true;
    for (const char c : begun ? line : "") {
      const std::size_t digit = kDigits.find(c);
      if (digit == std::string_view::npos) continue;
      bits = bits << 6 | static_cast<std::uint32_t>(digit);
      count += 6;
      if (count < 8) continue;
      count -= 8;
      bytes += static_cast<char>(bits >> count & 0xFF);
    }
  }
  return bytes;
}

/// The repository for hosts of one family; fetched when the first of them needs it.
class RepoSource {
 public:
  explicit RepoSource(velkor_repo::PanelRepository repo) : repo_(std::move(repo)) {}

  const std::string& File() const { return repo_.file; }
  const std::string& KeyUrl() const { return repo_.key; }
  const std::string& Text() {
    const std::scoped_lock lock(mutex_);
    if (!text_) text_ = repo_.url.empty() ? pnl_file::ReadE(repo_.file) : Fetched(repo_.url);
    return *text_;
  }
  const std::string& Key() {
    const std::scoped_lock lock(mutex_);
    if (!key_) key_ = Fetched(repo_.key);
    return *key_;
  }

 private:
  const velkor_repo::PanelRepository repo_;
  std::mutex mutex_;
  std::optional<std::string> text_ = {};
  std::optional<std::string> key_ = {};
};

velkor_repo::PanelRepository SourceOf(PanelRepo repo, bool redhat) {
  return repo == PanelRepo::kBase ? velkor_repo::VelkorRepo(redhat)
                                  : velkor_repo::CommonRepo(redhat);
}

/// Imports a key; the names of the packages that this brought stay in a file, for undoing. Both may be
/// repeated, and undone after a crash at any place.
void ImportKey(Draft& draft, const std::string& url, const std::string& repo_file) {
  std::string name = pnl_file::Name(repo_file);
  name = "f=/var/lib/brefir/keys-" + name.substr(0, name.rfind('.')) + "; ";
  const std::string added = "rpm -q gpg-pubkey | grep -vxF -f $f.before | grep ^gpg-pubkey- >$f; ";
  const std::string make = name +
                           "mkdir -p /var/lib/brefir && { [ -e $f.before ] || rpm -q gpg-pubkey "
                           ">$f.before; }; rpm --import " +
                           pnl_proc::Escape(url) + " || { rm -f $f.before; exit 1; }; " + added +
                           "rm -f $f.before";
  const std::string undo = name + "if [ -e $f.before ]; then " + added +
                           "fi; for k in $(cat $f 2>/dev/null); do rpm -e --allmatches $k || exit; "
                           "done; rm -f $f $f.before";
  draft.Run("rpm --import " + str::WithoutCredentials(url), make, undo);
}

void AddToYum(Draft& draft, RepoSource& source, PanelRepo repo) {
  const std::string& text = source.Text();
  if (draft.File(source.File()).SameContent(PathState::File(text))) return;
  if (repo == PanelRepo::kCommon)
    draft.ChangePackages({.action = PackageRequest::Action::kInstall, .names = {kEpel}});
  if (!source.KeyUrl().empty()) ImportKey(draft, source.KeyUrl(), source.File());
  draft.Write(source.File(), text);
}

void AddToApt(Draft& draft, RepoSource& source, PanelRepo repo) {
  const std::size_t count = draft.Count();
  // A copy of this host's own file never replaces a base repository that is there.
  if (repo == PanelRepo::kCommon || draft.File(source.File()).kind == PathKind::kMissing)
    draft.Write(source.File(), source.Text());
  if (!source.KeyUrl().empty()) {
    const std::string& key = source.Key();
    draft.Write(kAptKey, key.starts_with(kArmor) ? Dearmored(key) : key);
  }
  draft.Then("apt-get -y update", count);
}

}  // namespace

bool IsPackageName(const std::string& name) {
  return !name.empty() && name.front() != '-' &&
         std::all_of(name.begin(), name.end(), [](unsigned char c) {
           return std::isalnum(c) != 0 ||
                  std::string_view("+-._:~").find(static_cast<char>(c)) != std::string_view::npos;
         });
}

Edit HoldEdit(const std::string& name, bool held) {
  if (!IsPackageName(name))
    throw pnl_err::Error("package", name)
        .add_param("message", "'" + name + "' cannot be the name of a package");
  const auto look = [](Looks& looks) {
    looks.family = true;
    looks.texts.insert(kDpkgStatus);
    for (const auto& [config, list] : kLockPlugins) {
      looks.files.insert(config);
      looks.texts.insert(list);
    }
  };
  const auto make = [=](Draft& draft) {
    RequireFamily(draft, name);
    const bool debian = draft.Seen().family == PackageFamily::kDebian;
    if ((debian ? IsHeldByApt(draft, name) : IsHeldByYum(draft, name)) == held) return;
    const std::string hold = debian ? "apt-mark hold " : "yum -y -q versionlock add ";
    const std::string unhold = debian ? "apt-mark unhold " : "yum -y -q versionlock delete ";
    const std::string command = (held ? hold : unhold) + name;
    draft.Run(command, command, (held ? unhold : hold) + name);
  };
  return {.look = look, .make = make};
}

std::string PanelRepoFile(PanelRepo repo, PackageFamily family) {
  return SourceOf(repo, family == PackageFamily::kRedHat).file;
}

Edit PanelRepoEdit(PanelRepo repo) {
  const auto yum = std::make_shared<RepoSource>(SourceOf(repo, true));
  const auto apt = std::make_shared<RepoSource>(SourceOf(repo, false));
  const auto look = [=](Looks& looks) {
    looks.family = true;
    looks.files.insert({yum->File(), apt->File(), kAptKey});
    if (repo == PanelRepo::kCommon)
      looks.packages.insert({.action = PackageRequest::Action::kInstall, .names = {kEpel}});
  };
  const auto make = [=](Draft& draft) {
    RequireFamily(draft, yum->File());
    if (draft.Seen().family == PackageFamily::kRedHat) return AddToYum(draft, *yum, repo);
    AddToApt(draft, *apt, repo);
  };
  return {.look = look, .make = make};
}

}  // namespace fleet
