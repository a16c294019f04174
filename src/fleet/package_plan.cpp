#include "fleet/package_plan.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <vector>

#include "brefir/str_utils.h"
#include "fleet/package_answer.h"
#include "pnl/str.h"

namespace fleet {
namespace {

using Action = PackageRequest::Action;
using Names = std::vector<std::string>;

constexpr const char* kConfig = "config";

std::vector<std::string_view> WordsOf(std::string_view line) {
  std::vector<std::string_view> words;
  while (!line.empty()) {
    const std::string_view word = str::NextWord(line, ' ');
    if (!word.empty()) words.push_back(word);
  }
  return words;
}

/// The text between two marks of the line; "" if they are not there.
std::string Between(std::string_view line, std::string_view begin, std::string_view end) {
  const std::size_t from = line.find(begin);
  if (from == std::string_view::npos) return "";
  line.remove_prefix(from + begin.size());
  const std::size_t to = line.find(end);
  return to == std::string_view::npos ? "" : std::string(line.substr(0, to));
}

std::string Installed(const PackageAnswer& answer, const std::string& name) {
  const auto found = answer.installed.find(name);
  return found == answer.installed.end() ? "" : found->second;
}

std::string Pair(const std::string& name, const char* separator, const std::string& version) {
  return name + separator + version;
}

bool HasVersion(const std::string& name) {
  return name.find('=') != std::string::npos;
}

std::string BareName(const std::string& request) {
  return request.substr(0, request.find('='));
}

std::string Quoted(const Names& names) {
  std::string text;
  for (const std::string& name : names)
    text.append(text.empty() ? "'" : ", '").append(name).append("'");
  return text;
}

/// What the manager would do, before it is a plan.
struct Draught {
  PackageMoves moves;
  Names installs;  ///< as the manager's command line takes them
  Names updates;
  Names downgrades;
  Names removals;
  Names dependencies;     ///< new ones, and old ones that nobody asked for by name
  Names lost;             ///< removed, and nothing takes their place
  bool is_mixed = false;  ///< new packages that nothing depends on, and such that take places
};

// --- Debian

/// "Inst NAME [OLD] (NEW ORIGIN [ARCH])", "Remv NAME [OLD]".
Draught ReadApt(const PackageRequest& request, const PackageAnswer& answer) {
  std::set<std::string> asked;
  for (const std::string& name : request.names) asked.insert(BareName(name));
  std::set<std::string> automatic;
  for (std::string_view rest = answer.automatic; !rest.empty();)
    automatic.emplace(str::NextWord(rest, '\n'));
  Draught draught;
  for (std::string_view rest = answer.plan; !rest.empty();) {
    std::string_view line = str::NextWord(rest, '\n');
    const std::string_view verb = str::NextWord(line, ' ');
    if (verb != "Inst" && verb != "Remv") continue;
    const std::string name(str::NextWord(line, ' '));
    const std::string before = Installed(answer, name);
    if (verb == "Remv") {
      if (before.empty()) continue;
      draught.moves[name] = {before, ""};
      draught.removals.push_back(name);
      continue;
    }
    const std::string after = Between(line, "(", " ");
    if (before == after) continue;
    draught.moves[name] = {before, after};
    draught.installs.push_back(Pair(name, "=", after));
    const bool is_new = before.empty() || before == kConfig;
    if (!asked.contains(name) && (is_new || automatic.contains(name)))
      draught.dependencies.push_back(name);
  }
  return draught;
}

std::string AptCommand(const PackageRequest& request, const Draught& draught) {
  std::string command =
      "DEBIAN_FRONTEND=noninteractive apt-get -yq -o APT::Get::AutomaticRemove=false "
      "-o DPkg::Lock::Timeout=60 -o Dpkg::Options::=--force-confdef "
      "-o Dpkg::Options::=--force-confold ";
  if (std::any_of(request.names.begin(), request.names.end(), HasVersion))
    command += "-o APT::Get::Allow-Downgrades=true ";
  if (draught.installs.empty()) return command + "remove " + str::Join(draught.removals, " ");
  command += request.action == Action::kRemove ? "install " : "--no-remove install ";
  command += str::Join(draught.installs, " ");
  for (const std::string& name : draught.removals) command += " " + name + "-";
  if (draught.dependencies.empty()) return command;
  return command + " && apt-mark auto " + str::Join(draught.dependencies, " ") + " >/dev/null";
}

/// What apt-get does not know.
Names UnknownToApt(const std::string& output) {
  Names names;
  for (std::string_view rest = output; !rest.empty();) {
    const std::string_view line = str::NextWord(rest, '\n');
    if (line.starts_with("E: Unable to locate package "))
      names.emplace_back(line.substr(line.rfind(' ') + 1));
    if (line.starts_with("E: Version '"))
      names.push_back(Between(line, "for '", "'") + "=" + Between(line, "Version '", "'"));
    if (line.ends_with(" has no installation candidate"))
      names.push_back(Between(line, "Package '", "'"));
  }
  return names;
}

// --- Red Hat

std::string NameFor(const PackageAnswer& answer, std::string_view name, std::string_view arch) {
  const bool is_foreign =
      answer.machine == "x86_64" && arch.size() == 4 && arch[0] == 'i' && arch.ends_with("86");
  return std::string(name) + (is_foreign ? "." + std::string(arch) : "");
}

std::string WithoutZeroEpoch(std::string_view version) {
  if (version.starts_with("0:")) version.remove_prefix(2);
  return std::string(version);
}

bool AddVersion(std::string& versions, const std::string& version) {
  if (("/" + versions + "/").find("/" + version + "/") != std::string::npos) return false;
  versions = str::Append(versions, version, "/");
  return true;
}

void DropVersion(std::string& versions, const std::string& version) {
  std::string rest;
  for (std::string_view all = versions; !all.empty();) {
    const std::string_view word = str::NextWord(all, '/');
    if (word != version) rest = str::Append(rest, std::string(word), "/");
  }
  versions = rest;
}

/// The rows of yum's table. A row that is too long goes on in the next line.
class YumTable {
 public:
  explicit YumTable(const PackageAnswer& answer) : answer_(answer) {
    std::string_view rest = answer.plan;
    while (!rest.empty() && !is_in_table_) Header(str::NextWord(rest, '\n'));
    while (!rest.empty()) {
      const std::string_view line = str::NextWord(rest, '\n');
      if (line.starts_with("Transaction Summary")) break;
      Line(line);
    }
    Row();
    for (const auto& [name, move] : draught_.moves)
      if (move.after.empty() && !replaced_.contains(name)) draught_.lost.push_back(name);
    std::erase_if(draught_.moves,
                  [](const auto& item) { return item.second.before == item.second.after; });
  }
  Draught Take() { return std::move(draught_); }

 private:
  void Header(std::string_view line) {
    const std::vector<std::string_view> words = WordsOf(line);
    is_in_table_ = words.size() > 3 && words[0] == "Package" && words[1].starts_with("Arch");
  }

  void Line(std::string_view line) {
    const bool is_row = line.starts_with(' ');
    const bool begins = is_row && line.size() > 1 && line[1] != ' ';
    const std::vector<std::string_view> words = WordsOf(line);
    const bool replaces = is_row && words.size() >= 3 && words[0] == "replacing";
    if (!is_row || begins || replaces) Row();
    if (replaces) {
      Replace(words);
    } else if (is_row) {
      row_.insert(row_.end(), words.begin(), words.end());
    } else if (!words.empty()) {
      section_ = line;
    }
  }

  PackageMove& MoveOf(const std::string& name) {
    const std::string now = Installed(answer_, name);
    return draught_.moves.try_emplace(name, PackageMove{now, now}).first->second;
  }

  /// "replacing NAME.ARCH VERSION", or in newer ones "replacing NAME ARCH VERSION REPOSITORY".
  void Replace(const std::vector<std::string_view>& words) {
    std::string_view name = words[1];
    std::string_view arch = words[2];
    std::string_view version = words[2];
    if (words.size() > 4) {
      version = words[3];
    } else {
      arch = name.substr(name.rfind('.') + 1);
      name = name.substr(0, name.rfind('.'));
    }
    const std::string key = NameFor(answer_, name, arch);
    if (key == last_) return;  // its own old version
    DropVersion(MoveOf(key).after, WithoutZeroEpoch(version) + "." + std::string(arch));
    replaced_.insert(key);
    draught_.is_mixed = true;
  }

  void Row() {
    constexpr std::size_t kColumns = 4;
    const std::vector<std::string_view> row = std::exchange(row_, {});
    if (row.size() < kColumns) return;
    const bool installs = section_.starts_with("Installing");
    const bool updates = section_.starts_with("Updating") || section_.starts_with("Upgrading");
    const bool downgrades = section_.starts_with("Downgrading");
    const bool removes = section_.starts_with("Removing");
    if (!installs && !updates && !downgrades && !removes) return;
    const std::string version = WithoutZeroEpoch(row[2]) + "." + std::string(row[1]);
    const std::string word = std::string(row[0]) + "-" + version;
    last_ = NameFor(answer_, row[0], row[1]);
    PackageMove& move = MoveOf(last_);
    if (removes) {
      DropVersion(move.after, version);
      draught_.removals.push_back(word);
    } else if (installs) {
      AddVersion(move.after, version);
      draught_.installs.push_back(word);
      if (section_ == "Installing:")
        draught_.is_mixed = true;
      else
        draught_.dependencies.emplace_back(row[0]);
    } else {
      move.after = version;
      (updates ? draught_.updates : draught_.downgrades).push_back(word);
    }
  }

  const PackageAnswer& answer_;
  Draught draught_;
  bool is_in_table_ = false;
  std::string_view section_;
  std::vector<std::string_view> row_;
  std::string last_;
  std::set<std::string> replaced_;
};

std::string YumCommand(const PackageRequest& request, const PackageAnswer& answer,
                       const Draught& draught) {
  const std::string command = answer.manager +
                              " -y --setopt=exit_on_lock=1 "
                              "--setopt=clean_requirements_on_remove=0 ";
  Names names = draught.updates;
  switch (request.action) {
    case Action::kRemove:
      return command + "remove " + str::Join(draught.removals, " ");
    case Action::kUpdateAll:
      // What takes the place of another package, and a new kernel, are found only without names.
      if (draught.is_mixed) return command + "update";
      [[fallthrough]];
    case Action::kUpdate:
      return command + "update " + str::Join(names.empty() ? request.names : names, " ");
    case Action::kInstall:
      break;
  }
  if (!draught.downgrades.empty())
    return command + "downgrade " + str::Join(draught.downgrades, " ");
  names.insert(names.begin(), draught.installs.begin(), draught.installs.end());
  std::string install = command + "install " + str::Join(names, " ");
  if (draught.dependencies.empty()) return install;
  // They go when nothing needs them any more, as if the manager had found them by itself.
  const std::string marked = " " + str::Join(draught.dependencies, " ");
  return install + " && { " + answer.manager + " -q mark dependency" + marked + " || " +
         answer.manager + " -q mark remove" + marked + " || yumdb set reason dep" + marked +
         "; } >/dev/null 2>&1";
}

/// What yum or dnf do not know. They go on with the other names.
Names UnknownToYum(const std::string& output) {
  Names names;
  for (std::string_view rest = output; !rest.empty();) {
    const std::string_view line = str::NextWord(rest, '\n');
    for (const char* beginning : {"No match for argument: ", "No package "}) {
      if (!line.starts_with(beginning)) continue;
      std::string_view name = line.substr(std::string_view(beginning).size());
      if (name.ends_with(" available.")) name.remove_suffix(std::string_view(" available.").size());
      names.emplace_back(name.substr(0, name.find(' ')));
    }
    constexpr std::string_view kNoMatch = "Error: Unable to find a match: ";
    if (!line.starts_with(kNoMatch)) continue;
    for (const std::string_view name : WordsOf(line.substr(kNoMatch.size())))
      names.emplace_back(name);
  }
  return names;
}

// --- What can be had again

/// "NAME VERSION" of what can be installed.
std::set<std::string> Available(const PackageAnswer& answer) {
  std::set<std::string> all;
  if (answer.family == PackageFamily::kRedHat) {
    std::string_view rest = answer.available;
    while (!rest.empty() && !str::NextWord(rest, '\n').starts_with("Available ")) continue;
    const std::string text = str::Replace(std::string(rest), "\n", " ");
    const std::vector<std::string_view> words = WordsOf(text);
    for (std::size_t i = 0; i + 2 < words.size(); i += 3) {
      const std::size_t dot = words[i].rfind('.');
      if (dot == std::string_view::npos) continue;
      const std::string_view arch = words[i].substr(dot + 1);
      all.insert(NameFor(answer, words[i].substr(0, dot), arch) + " " +
                 WithoutZeroEpoch(words[i + 1]) + "." + std::string(arch));
    }
    return all;
  }
  for (std::string_view rest = answer.available; !rest.empty();) {
    const std::string_view line = str::NextWord(rest, '\n');
    const std::vector<std::string_view> words = WordsOf(line);
    if (words.size() > 4 && words[1] == "|")
      all.insert(std::string(words[0]) + " " + std::string(words[2]));
    std::string_view file = line;
    const std::string name(str::NextWord(file, '_'));
    if (line.ends_with(".deb") && !file.empty())
      all.insert(name + " " + str::Replace(std::string(str::NextWord(file, '_')), "%3a", ":"));
  }
  return all;
}

std::string NoUndo(const PackageAnswer& answer, const PackageMoves& moves) {
  constexpr std::size_t kShown = 3;
  const std::set<std::string> available = Available(answer);
  Names gone;
  for (const auto& [name, move] : moves) {
    if (move.before == kConfig) continue;
    const std::string plain =
        answer.family == PackageFamily::kDebian ? name.substr(0, name.find(':')) : name;
    for (std::string_view all = move.before; !all.empty();) {
      const std::string version(str::NextWord(all, '/'));
      std::string after = move.after;
      if (AddVersion(after, version) && !available.contains(Pair(plain, " ", version)))
        gone.push_back(Pair(name, " ", version));
    }
  }
  if (gone.empty()) return "";
  const std::size_t more = gone.size() > kShown ? gone.size() - kShown : 0;
  const char* verb = gone.size() == 1 ? " is" : " are";
  gone.resize(gone.size() - more);
  return str::Join(gone, ", ") + (more != 0 ? " and " + std::to_string(more) + " more" : "") +
         verb + " in no repository any more";
}

// --- Refusals

PackagePlan Refusal(const std::string& why, bool is_absent = false) {
  return {.refusal = why, .is_absent = is_absent};
}

PackagePlan Unknown(const Names& names) {
  return Refusal((names.size() == 1 ? "there is no package " : "there are no packages ") +
                     Quoted(names) +
                     ": check the name; if it is right, fetch the package index "
                     "('brefirctl package refresh') or add the repository that has it "
                     "('brefirctl package add-repo')",
                 true);
}

std::string Reason(const PackageAnswer& answer) {
  const std::string said = str::Trim(answer.plan);
  std::string reason = FailureOf(said);
  if (!reason.empty()) return reason;
  return said.empty() ? "the package manager gave no reason"
                      : said.substr(said.find_last_of('\n') + 1);
}

bool IsAt(std::string_view versions, const std::string& wanted) {
  while (!versions.empty()) {
    std::string_view version = str::NextWord(versions, '/');
    if (version == wanted || version.starts_with(wanted + "-") || version.starts_with(wanted + "."))
      return true;
    const std::size_t epoch = version.find(':');
    if (epoch == std::string_view::npos) continue;
    version.remove_prefix(epoch + 1);
    if (version == wanted || version.starts_with(wanted + "-") || version.starts_with(wanted + "."))
      return true;
  }
  return false;
}

std::string OtherVersion(const std::string& name, const std::string& after,
                         const std::string& wanted) {
  return "package '" + name + "' would be at version '" + after + "', not at '" + wanted +
         "': the package manager offers no way there";
}

/// yum keeps a newer version that is installed without calling that a failure.
std::string NotAtVersion(const PackageRequest& request, const PackageAnswer& answer,
                         const PackageMoves& moves) {
  for (const std::string& word : request.names) {
    if (!HasVersion(word)) continue;
    const std::string name = BareName(word);
    const std::string wanted = word.substr(name.size() + 1);
    const auto move = moves.find(name);
    const std::string after = move == moves.end() ? Installed(answer, name) : move->second.after;
    if (!IsAt(after, wanted)) return OtherVersion(name, after, wanted);
  }
  return "";
}

/// A word that a shell and the list of a step take as it is.
bool IsPlain(const std::string& word) {
  return word.find_first_of("-=") != 0 &&
         std::all_of(word.begin(), word.end(), [](unsigned char c) {
           return std::isalnum(c) != 0 ||
                  std::string_view("+-._:~^=/").find(static_cast<char>(c)) !=
                      std::string_view::npos;
         });
}

/// What the manager printed is read as names and versions, and root runs the command that is made of
/// them: anything else must not get there.
std::string NotNames(const Draught& draught) {
  Names words;
  for (const Names* names : {&draught.installs, &draught.updates, &draught.downgrades,
                             &draught.removals, &draught.dependencies})
    words.insert(words.end(), names->begin(), names->end());
  for (const auto& [name, move] : draught.moves) words.push_back(Pair(name, "=", move.after));
  const auto strange = std::find_if_not(words.begin(), words.end(), IsPlain);
  if (strange == words.end()) return "";
  return "its package manager names '" + *strange +
         "', which cannot be a package: look at what it says there";
}

PackagePlan PlanApt(const PackageRequest& request, const PackageAnswer& answer) {
  const Names unknown = UnknownToApt(answer.plan);
  if (answer.code != 0 && !unknown.empty()) return Unknown(unknown);
  if (answer.code != 0) return Refusal(Reason(answer));
  Draught draught = ReadApt(request, answer);
  if (const std::string strange = NotNames(draught); !strange.empty()) return Refusal(strange);
  PackagePlan plan{.moves = std::move(draught.moves)};
  if (plan.moves.empty()) return plan;
  plan.command = AptCommand(request, draught);
  plan.no_undo = NoUndo(answer, plan.moves);
  return plan;
}

PackagePlan PlanYum(const PackageRequest& request, const PackageAnswer& answer) {
  const Names unknown = UnknownToYum(answer.plan);
  if (request.action == Action::kInstall && !unknown.empty()) {
    const std::set<std::string> names(unknown.begin(), unknown.end());
    return Unknown({names.begin(), names.end()});
  }
  const bool has_table = answer.plan.find("Transaction Summary") != std::string::npos;
  const bool is_idle = answer.plan.find("Nothing to do") != std::string::npos ||
                       answer.plan.find("No packages marked") != std::string::npos ||
                       answer.plan.find("No Packages marked") != std::string::npos;
  if (!has_table && answer.code != 0 && !is_idle) return Refusal(Reason(answer));
  Draught draught = has_table ? YumTable(answer).Take() : Draught();
  if (const std::string strange = NotNames(draught); !strange.empty()) return Refusal(strange);
  PackagePlan plan{.moves = std::move(draught.moves)};
  if (request.action == Action::kInstall) plan.refusal = NotAtVersion(request, answer, plan.moves);
  if (request.action != Action::kRemove && !draught.lost.empty())
    plan.refusal = "it would remove " + Quoted(draught.lost) +
                   ": remove that yourself first, if it is not needed";
  if (!plan.refusal.empty()) return Refusal(plan.refusal);
  if (plan.moves.empty()) return plan;
  plan.command = YumCommand(request, answer, draught);
  plan.no_undo = NoUndo(answer, plan.moves);
  return plan;
}

}  // namespace

std::map<std::string, std::string> ReadPackages(std::string_view lines) {
  std::map<std::string, std::string> packages;
  while (!lines.empty()) {
    std::string_view line = str::NextWord(lines, '\n');
    const std::string name(str::NextWord(line, ' '));
    if (!line.empty()) packages[name] = line;
  }
  return packages;
}

PackagePlan ReadPackagePlan(const PackageRequest& request, const PackageAnswer& answer) {
  if (answer.family == PackageFamily::kUnknown)
    return Refusal(
        "neither of the Red Hat nor of the Debian family; packages of other systems are not "
        "supported");
  const bool is_debian = answer.family == PackageFamily::kDebian;
  if (answer.manager.empty())
    return Refusal(is_debian ? "it has no package manager: there is no '/usr/bin/apt-get'"
                             : "it has no package manager: there is no '/usr/bin/yum' or "
                               "'/usr/bin/dnf'");
  if (request.action == Action::kUpdate)
    for (const std::string& name : request.names) {
      const std::string version = Installed(answer, name);
      if (version.empty() || version == kConfig)
        return Refusal(
            "package '" + name + "' is not installed; install it with 'brefirctl package install'",
            true);
    }
  return is_debian ? PlanApt(request, answer) : PlanYum(request, answer);
}

}  // namespace fleet
