#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fleet/export.h"
#include "fleet/host_steps.h"
#include "fleet/plan.h"
#include "fleet/run_step.h"

/// Edits of a host that is not changed yet: what was seen there, with all edits on top. The steps of a
/// run are the difference.
///
///     fleet::Draft draft("web1", fleet::Look(host, looks));
///     draft.Write("/etc/motd", "Welcome\n");
///     draft.SetMode("/etc/motd", 0600);
///     const std::vector<fleet::RunStep> steps = draft.Steps();  // one step
namespace fleet {

/// A parameter of errors of Draft and of edits. It is not empty if something is missing that another step
/// may bring: a file, a directory, a user, a package.
inline constexpr const char* kIsMissing = "absent";

/// Use it from one thread at a time. Paths are those that were looked at; a path that was not asked
/// throws pnl_err::Missed("path", path). What cannot be done throws NodeError's type "node", with
/// object the host, value the path and a message.
class FLEET_API Draft {
 public:
  Draft(std::string host, Sight sight);

  const std::string& HostName() const { return host_; }
  const Sight& Seen() const { return sight_; }  ///< without the edits

  // Reading, with all edits up to now.

  /// What is at a path of Looks::files; links are followed.
  [[nodiscard]] const PathState& File(const std::string& path) const;
  /// What is at a path of Looks::entries: a link in the last place counts itself.
  [[nodiscard]] const PathState& Entry(const std::string& path) const;
  /// The text of a file; null if there is none. Throws for something else than a file, and for one
  /// that was too large to be read.
  [[nodiscard]] std::optional<std::string> Text(const std::string& path) const;
  /// The value of a parameter. Throws if it cannot be read.
  [[nodiscard]] std::string Value(const std::string& parameter) const;

  // Editing. Asked for: the paths in Looks::files, if not said otherwise.

  struct WriteOptions {
    unsigned new_mode = 0644;  ///< of a file that is missing
    bool by_lines = false;     ///< see RunStep
    bool secret = false;       ///< see RunStep; private keys are secret without it
  };
  /// Writes a file. Mode and owner of one that is there stay.
  void Write(const std::string& path, FileText content, const WriteOptions& options);
  void Write(const std::string& path, std::string content, const WriteOptions& options) {
    Write(path, std::make_shared<const std::string>(std::move(content)), options);
  }
  void Write(const std::string& path, std::string content) { Write(path, std::move(content), {}); }
  /// The same with the content of a file of this host, of that size and sum (pnl_file::Cksum). It is
  /// read when the step is made, and must not change until then.
  void WriteFrom(const std::string& path, const std::string& source, std::uint64_t size,
                 std::uint32_t sum, const WriteOptions& options);
  void SetMode(const std::string& path, unsigned mode);
  /// "UID:GID", one of them may be empty.
  void SetOwner(const std::string& path, const std::string& owner);
  /// Makes an empty file, or sets the time of one that is there; seconds.
  void Touch(const std::string& path, std::int64_t time);
  /// Makes the directory and its missing parents. Asked for: Looks::missing.
  void MakeDirs(const std::string& path);
  /// Makes a symbolic link; nothing may be there. Asked for: Looks::entries.
  void Link(const std::string& path, const std::string& target);
  /// Removes whatever is there, a directory only if `recursive`. Asked for: Looks::entries.
  void Remove(const std::string& path, bool recursive = false);
  /// Moves a file or directory; a file there is replaced. Asked for: both, Looks::entries.
  void Move(const std::string& from, const std::string& to);
  /// Copies a file, with its mode if there is none. Asked for: both.
  void Copy(const std::string& from, const std::string& to);
  /// Sets the kernel's value. Asked for: Looks::parameters.
  void SetParameter(const std::string& name, const std::string& value);

  /// Runs a command line of sh(1); `undo` takes back what it does, "": nothing can. `name` is for people.
  void Run(const std::string& name, const std::string& command, const std::string& undo);
  /// How many edits were made up to now.
  [[nodiscard]] std::size_t Count() const { return touched_.size(); }
  /// Runs a command line of sh(1) after the edits that follow on the first `count` ones, if they change
  /// anything, and again when they were undone. Equal ones with nothing but files and parameters
  /// between them are run once, for all of them.
  /// `name` is for people; "": the command.
  void Then(const std::string& command, std::size_t count, const std::string& name = "");
  /// The same, whatever was edited; it is not run when undoing.
  void RunService(const std::string& command);
  /// Changes packages as the package manager has planned it. Asked for: Looks::packages. Throws what
  /// the manager said if it refuses, and kIsMissing if it does not know a package.
  void ChangePackages(const PackageRequest& request);
  /// Leaves room for an edit that is planned when its turn comes; `words` are for people.
  void Later(const std::string& words);
  /// Whether an edit up to now may bring files, packages, users or values that no look has seen.
  [[nodiscard]] bool MayBring() const;

  /// Whether the steps of the edits that follow are secret, see RunStep.
  void SetSecret(bool secret) { secret_ = secret; }

  /// What differs now from what was seen, in the order of the edits. Edits of one file are one step.
  [[nodiscard]] std::vector<RunStep> Steps() const;

  /// Adds a check that is run on the host after the steps were made; what it throws fails them.
  using Check = std::function<void(pnl_host::Host& host)>;
  void Verify(Check check) { checks_.push_back(std::move(check)); }
  [[nodiscard]] const std::vector<Check>& Checks() const { return checks_; }

  /// Throws the error about a path that cannot be edited.
  [[noreturn]] void Refuse(const std::string& path, const std::string& why) const;
  /// The same, because something is missing that an earlier step may bring (kIsMissing).
  [[noreturn]] void Absent(const std::string& path, const std::string& why) const;

 private:
  const Place& Seen(const std::map<std::string, Place>& places, const std::string& path) const;
  const PathState& Now(const Place& place) const;
  RunStep& StepOf(const Place& place);
  void Replace(const std::string& path, PathState after, std::string source,
               const WriteOptions& options);
  void RequireFile(const std::string& path, const PathState& state) const;
  void RequireFolder(const std::string& path, const Place& place) const;
  void RequireOutsideTrees(const std::string& path) const;

  std::string host_;
  Sight sight_;
  std::map<std::string, PathState> now_;  ///< by the path without links
  std::vector<RunStep> steps_;
  std::vector<Check> checks_;
  std::vector<std::string> trees_;    ///< directories that are moved or removed
  std::vector<std::string> touched_;  ///< the object of each edit
  bool secret_ = false;
};

/// An edit, for every host: it says what it looks at, then edits the draft of each host. Both functions
/// must be thread-safe, since several hosts are edited at the same time.
///
///     const fleet::Edit motd{
///         .look = [](fleet::Looks& looks) { looks.files.insert("/etc/motd"); },
///         .make = [](fleet::Draft& draft) { draft.Write("/etc/motd", "Welcome\n"); }};
struct Edit {
  std::function<void(Looks& looks)> look;
  std::function<void(Draft& draft)> make;
  /// The edit in a line, for plans in which it comes late.
  std::string words = {};
};

/// The steps as a plan for people: diffs of files whose content is known and no secret, values, and
/// the other steps as command lines.
[[nodiscard]] FLEET_API Plan PlanOf(const std::string& node, const std::vector<RunStep>& steps);

}  // namespace fleet
