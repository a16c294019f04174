#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "fleet/kernel_parameters.h"
#include "fleet/run_step.h"
#include "pnl/host.h"

/// The steps of a run on one host, this one or a node: three commands, however many steps there are.
///
///     fleet::Looks looks;
///     looks.files.insert("/etc/motd");
///     const fleet::Sight sight = fleet::Look(host, looks);
///     fleet::RunStep step{.object = "/etc/motd"};
///     step.before = sight.At("/etc/motd");
///     step.after = fleet::PathState::File("Welcome\n");
///     const fleet::RunMark run{.name = "17-5f3a9c21"};
///     const std::vector<fleet::Verdict> verdicts = fleet::MakeSteps(host, run, {step});
///     fleet::EndSteps(host, run);
///
/// Most callers want fleet::Run, which keeps books, and undoes on all nodes what failed on one.
///
/// Use a host and its session from one thread at a time. All functions throw what the session
/// throws, and "run" (object: the host, value: the run or "look", with a message) when the host
/// refuses or its answer is cut.
namespace fleet {

inline constexpr const char* kRunFailed = "run";
/// A parameter of that error. It is not empty if the host refused the command: it did not begin then.
inline constexpr const char* kRefused = "refused";

// --- Looking

/// A change of packages, for the host's package manager to plan.
struct PackageRequest {
  enum class Action { kInstall, kRemove, kUpdate, kUpdateAll };
  Action action = Action::kInstall;
  std::vector<std::string> names = {};  ///< "NAME", or "NAME=VERSION" to install it at that version
  auto operator<=>(const PackageRequest&) const = default;
};

/// What the package manager would do.
struct PackagePlan {
  PackageMoves moves = {};   ///< none: it is so already
  std::string command = {};  ///< a command line for sh(1) that does it
  std::string no_undo = {};  ///< as RunStep::no_undo
  std::string refusal = {};  ///< why it cannot be done, for people; "": it can
  bool is_absent = false;    ///< it was refused because the manager does not know a package
};

enum class PackageFamily { kUnknown, kDebian, kRedHat };

/// What is asked of a host. Paths are absolute, or begin with "~USER", that user's home.
struct FLEET_API Looks {
  std::set<std::string> files = {};    ///< paths; links are followed
  std::set<std::string> texts = {};    ///< the same, and their content is needed to edit it
  std::set<std::string> entries = {};  ///< paths; a link in the last place is looked at itself
  std::set<std::string> missing = {};  ///< paths of directories: which of them are missing?
  std::set<std::string> parameters = {};
  std::set<std::string> users = {};   ///< names
  std::set<std::string> groups = {};  ///< names
  std::set<PackageRequest> packages = {};
  std::set<std::string> versions = {};  ///< names of packages
  bool family = false;                  ///< whether Sight::family is wanted; so it is with packages
};

/// A path that was looked at.
struct Place {
  std::string path;  ///< without links in it
  PathState state;
  std::int64_t time = 0;   ///< of its last modification, seconds
  bool has_folder = true;  ///< whether the directory is there that it is in, or would be
};

/// How the guard of a run stands on a host.
enum class GuardState {
  kNone,
  kArmed,     ///< it will put things back when its time is over
  kLost,      ///< it was armed, but its process is gone: the host has booted since
  kFired,     ///< its time was over, and it could not put back everything, or has not yet
  kRestored,  ///< it has put things back
};

/// What was seen. The functions throw pnl_err::Missed for what was not asked.
struct FLEET_API Sight {
  std::map<std::string, Place> files = {};  ///< and texts
  std::map<std::string, Place> entries = {};
  /// How many of the last parts of the path are missing; null: a part of it is no directory.
  std::map<std::string, std::optional<std::size_t>> missing = {};
  std::map<std::string, KernelValue> parameters = {};
  std::map<std::string, std::string> users = {};   ///< name to number; "": there is no such user
  std::map<std::string, std::string> groups = {};  ///< the same
  std::map<PackageRequest, PackagePlan> packages = {};
  std::map<std::string, std::string> versions = {};  ///< name to version; "": not installed
  PackageFamily family = PackageFamily::kUnknown;
  std::string machine = {};  ///< machine-id(5), or one that brefir has made; "" if none can be made
  /// Runs that have left kept copies here, with their epoch.
  std::map<std::string, std::int64_t> runs = {};
  std::map<std::string, GuardState> guards = {};  ///< of these runs
  /// Whether a guard still does its work when the host boots meanwhile.
  bool guards_at_boot = false;

  [[nodiscard]] const PathState& At(const std::string& path) const;  ///< of `files`
};

/// Looks at all of it in one command. Content of files is read up to `limit` bytes, of `texts` up to
/// pnl_host::Host::kMaxText.
[[nodiscard]] FLEET_API Sight Look(pnl_host::Host& host, const Looks& looks,
                                   std::uint64_t limit = pnl_host::Host::kMaxText);

// --- Working

/// The run as the host knows it.
struct RunMark {
  std::string name;          ///< letters, digits and "-"
  std::int64_t epoch = 1;    ///< the host refuses lower ones than it has seen
  std::string machine = {};  ///< Sight::machine; another machine refuses. "": any
  int wait = 60;             ///< seconds to wait for another command of a run on that host
  /// Whether a command that holds the lock longer is ended, with its process group.
  bool take = false;
  /// Whether commands of the run may still come: the host then keeps its epoch.
  bool fence = false;
  /// Whether the run was committed there: commands then count as run, whatever the host remembers.
  bool committed = false;
  /// Whether the books say that all was made there: a command of which the host knows nothing is then
  /// not taken for one that never came there.
  bool made = false;
  /// Seconds that a command of a step may take. It is ended then, and the step has failed.
  int command_limit = 1800;
  /// Seconds after which the host undoes by itself what this call of MakeSteps makes, unless ClaimGuard
  /// was called; 0: never. A service of these steps may not take longer, either.
  int guard = 0;
  /// Other runs that may have left copies there; makes nothing beside one that began after a look
  /// (Sight::runs). Null: beside any.
  std::optional<std::vector<std::string>> known = {};
};

enum class StepResult {
  kDone,
  kAlready,   ///< it was so already
  kConflict,  ///< the object is neither as before nor as after
  kFailed,
  kWanted,  ///< undoing needs the content, which the host has not kept
  kNone,    ///< its turn did not come
};

struct Verdict {
  StepResult result = StepResult::kNone;
  /// Of kFailed, of some conflicts, and of a service that failed when it was made, and again when it was
  /// undone (kDone: what it follows is as before). For people.
  std::string reason = {};
  std::string output = {};  ///< of a command: its last lines
  /// What the step did to packages beyond its plan, or instead.
  std::optional<PackageMoves> packages = {};
};

/// Makes the steps one after the other until one fails, and verifies each, up to the first kLate one. With
/// `done`, so many of them were made by an earlier call. A file is replaced by a
/// rename, with owner, mode, ACL and label kept; the old one stays beside it until EndSteps. Returns
/// a verdict for each step.
///
/// With RunMark::guard, the guard is armed before the first step is made. If it cannot be armed, the host
/// refuses. Of files, only what the host has kept is put back: what somebody else has changed meanwhile
/// stays. In a run whose earlier guard went off or was lost, the host refuses to make anything.
[[nodiscard]] FLEET_API std::vector<Verdict> MakeSteps(pnl_host::Host& host, const RunMark& run,
                                                       const std::vector<RunStep>& steps,
                                                       std::size_t done = 0);

/// Undoes the steps in reverse order: what is as `after` becomes as `before` again. A conflict is
/// told and left alone, the others are undone. With `content`, files come from the content of
/// `before` if the host has no kept copy; otherwise their verdict is kWanted. When all is undone,
/// nothing is left on the host. Returns a verdict for each step, in the order of `steps`.
///
/// `instead` has steps, by number, that are undone by something else than their inverse: by this step
/// for the same path, whatever the host has kept. `guard`, unless null, gets how the run's guard stood;
/// it is gone afterwards.
[[nodiscard]] FLEET_API std::vector<Verdict> UndoSteps(
    pnl_host::Host& host, const RunMark& run, const std::vector<RunStep>& steps,
    bool content = false, const std::map<std::size_t, RunStep>& instead = {},
    GuardState* guard = nullptr);

/// Undoes the steps with all that the books have: content, and single lines of files that somebody
/// else has changed meanwhile (RunStep::by_lines).
struct Undone {
  std::vector<Verdict> verdicts;
  std::vector<std::string> by_lines = {};  ///< the paths of which only lines were taken back
  GuardState guard = GuardState::kNone;    ///< how it stood before
};
[[nodiscard]] FLEET_API Undone UndoFromBooks(pnl_host::Host& host, const RunMark& run,
                                             const std::vector<RunStep>& steps);

/// Takes the guard of the run away before it goes off: what it guards stays. Call it over a session that
/// was opened after MakeSteps: it shows that the host still lets people in. Throws kRunFailed, with a message, if there is
/// no guard any more, whether it has gone off or was lost, or if a part of it stays, which would put things
/// back at the next boot. The steps are to be undone then.
FLEET_API void ClaimGuard(pnl_host::Host& host, const RunMark& run);

/// Removes the kept copies.
FLEET_API void EndSteps(pnl_host::Host& host, const RunMark& run);

/// A step of a run whose journal is lost, as the host knows it.
struct Salvaged {
  std::string object;
  Verdict verdict;
};

/// Undoes the steps of a run of which only the host knows (Sight::runs), in reverse order, from the
/// kept copies. What is not as the run has left it is a conflict: told and left alone. When all is
/// undone, nothing is left on the host. Use it only for runs that no journal has.
[[nodiscard]] FLEET_API std::vector<Salvaged> SalvageRun(pnl_host::Host& host, const RunMark& run);

}  // namespace fleet
