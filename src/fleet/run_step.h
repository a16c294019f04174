#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/export.h"

/// The steps of a run as data: what was on the host, and what shall be there. From them alone, in
/// another process, a step can be made, verified and undone.
namespace fleet {

enum class PathKind { kMissing, kFile, kDirectory, kLink, kOther };

/// The content of a file. Drafts, steps and hosts share it: many hosts often get the same.
using FileText = std::shared_ptr<const std::string>;

/// What is at a path of a host.
struct FLEET_API PathState {
  PathKind kind = PathKind::kMissing;
  std::uint64_t size = 0;   ///< bytes, of a file
  std::uint32_t sum = 0;    ///< of a file: pnl_file::Cksum
  std::string target = {};  ///< of a link
  /// The permission bits. Of a new file, directory or link that has none: the host's default.
  std::optional<unsigned> mode = {};
  std::string owner = {};  ///< "UID:GID"; "": that of a new file
  /// Of the last modification, seconds. Set on both sides of a step that changes only this.
  std::optional<std::int64_t> time = {};
  /// Of a file; null if it is too large to be kept, or secret.
  FileText content = {};
  /// Of a file: whether size and sum are given. The books have none of secret files; the host has them.
  bool is_known = true;

  /// A file with this content.
  [[nodiscard]] static PathState File(std::string content);
  [[nodiscard]] static PathState File(FileText content);  ///< not null
  /// The same, of which only size and sum are known.
  [[nodiscard]] static PathState File(std::uint64_t size, std::uint32_t sum);

  /// Whether both are known to have the same kind, content and target. Mode and owner are not compared.
  [[nodiscard]] bool SameContent(const PathState& other) const;
  /// Whether mode and owner are the same; what is not set agrees with everything.
  [[nodiscard]] bool SameAttributes(const PathState& other) const;
};

enum class StepForm {
  kPath,       ///< `object` is a path, which goes from `before` to `after`
  kMove,       ///< what is at `from` moves to `object`, where `before` is
  kCopy,       ///< the file at `from` is copied to `object`, where `before` is
  kParameter,  ///< `object` is a kernel parameter, whose value goes from `value_before` to `value`
  kCommand,    ///< the shell runs `make` once; undoing runs `undo`. `object` is its name for people
  kService,  ///< the shell runs `make` after the steps of `follows`, and again when they were undone
  kPackages,  ///< the packages of `packages` change; `make` is the package manager's command
  kLate,      ///< an edit that is planned when its turn comes; `object` has its words
};

/// What a step does to a package.
struct PackageMove {
  std::string before = {};  ///< its version; "": it is not installed
  std::string after = {};   ///< the same
  bool operator==(const PackageMove&) const = default;
};
using PackageMoves = std::map<std::string, PackageMove>;  ///< by the package's name

/// One step on one host.
struct FLEET_API RunStep {
  StepForm form = StepForm::kPath;
  std::string object = {};  ///< the path without links in it, or the parameter
  PathState before = {};
  PathState after = {};
  std::string from = {};
  std::string value_before = {};
  std::string value = {};
  std::string make = {};  ///< a command line for sh(1)
  /// A command line for sh(1); "": a command that cannot be undone. Packages are undone by `packages`.
  std::string undo = {};
  /// The objects of steps before it that a service follows. None: it is not run when undoing.
  std::vector<std::string> follows = {};
  PackageMoves packages = {};
  /// Why the step cannot be undone, for people; "" if it can.
  std::string no_undo = {};
  /// When other lines of the file were changed since, undoing changes the step's own lines only.
  bool by_lines = false;
  /// Of what runs a command: its host was to be undone before its run was committed there. If that host
  /// does not remember that it began, it has not run.
  bool uncommitted = false;
  /// Its content is in no journal, plan or log, nor are its size, sum and values. Such a step is undone
  /// by what the host keeps.
  bool secret = false;
  /// A file of the panel host with the content of `after`, when that is too large for it.
  std::string source = {};

  /// The step in one line of ASCII, without line end, for the journal and for saved plans. What is
  /// secret is left out.
  [[nodiscard]] std::string Text() const;
  /// The step of such a line. Throws pnl_err::Error("step", "read", LINE) for another text.
  [[nodiscard]] static RunStep Read(std::string_view line);
};

/// Whether the host runs something for it: a command, a service or the package manager.
[[nodiscard]] FLEET_API bool RunsCommand(const RunStep& step);
/// Whether the old state can still be restored after the commit, when the host keeps no copy.
[[nodiscard]] FLEET_API bool UndoableFromBooks(const RunStep& step);
/// The steps that restore what the step changed, in this order.
[[nodiscard]] FLEET_API std::vector<RunStep> Inverse(const RunStep& step);

}  // namespace fleet
