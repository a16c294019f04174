#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "fleet/draft.h"
#include "fleet/inventory.h"
#include "fleet/run.h"
#include "tools/frame/answer.h"
#include "tools/frame/context.h"

/// Verbs whose effect on a host is files and values: they are runs, here or on nodes.
namespace tools {

struct Verb;

/// The effect of a verb on one host. Both functions are called from several threads with --nodes.
struct HostEdit {
  std::function<void(fleet::Looks& looks)> look;  ///< as fleet::Edit::look
  /// Edits the draft; returns the verb's output for that host when the run has succeeded. "changed"
  /// is added to its records.
  std::function<Answer(fleet::Draft& draft)> make;
  std::function<std::string()> before_commit = {};  ///< as fleet::RunOptions::before_commit
  /// Completes the output of a host where the run has succeeded, or had nothing to do.
  std::function<void(Answer& answer, const fleet::NodeReport& node)> told = {};
  bool asks = false;       ///< people are asked before the change, also for one host
  std::string words = {};  ///< as fleet::Edit::words
};

/// --then, for every verb that edits hosts.
void AddThenOption(opts::Args& args);
/// --secret, for a verb that changes content.
void AddSecretOption(opts::Args& args);
/// The effect of the verb with these words.
[[nodiscard]] HostEdit EditOf(Context& context, const Verb& verb);

/// The options of a run, for a verb that can have --nodes.
void AddRunOptions(opts::Args& args);
/// Those of them that say how it is made. Unless `always`, they need --nodes.
void AddPolicyOptions(opts::Args& args, bool always);
/// Those of them about the guard, and --yes.
void AddGuardOptions(opts::Args& args);
/// The fields that they add to a verb's records.
[[nodiscard]] std::vector<Field> EditFields();

/// Plans, and shows, checks or makes the run of a verb on --nodes, --node or this host; returns the
/// exit code.
[[nodiscard]] int RunEdit(Context& context, const Verb& verb);

/// The nodes that --nodes or --node names; none for this host.
[[nodiscard]] std::vector<fleet::Node> RunNodes(const Context& context);
/// The hosts of a run on these nodes, or on this host if there are none.
[[nodiscard]] std::vector<fleet::RunTarget> RunTargets(const Context& context,
                                                       const std::vector<fleet::Node>& nodes);

/// The edits of a host, by its index.
using EditsOf = std::function<std::vector<HostEdit>(std::size_t target)>;

/// A run of any edits.
struct EditJob {
  std::vector<fleet::RunTarget> targets;
  std::string command;  ///< for people; no secrets
  EditsOf edits = {};
  /// In place of edits: steps that were saved as a plan, for each target.
  std::vector<std::vector<fleet::RunStep>> steps = {};
  std::vector<std::string> machines = {};  ///< of the targets, for `steps`
  /// The edit of a step that was saved as words.
  std::function<HostEdit(std::size_t target, const fleet::RunStep& step)> late = {};
  std::function<std::string()> before_commit = {};  ///< as fleet::RunOptions::before_commit
  std::function<void(Answer& answer, const fleet::NodeReport& node)> told = {};  ///< as in HostEdit
  bool asks = false;                                                             ///< as in HostEdit
  std::optional<fleet::KeyChange> key = {};              ///< as in fleet::RunOptions
  std::size_t allow_owed = 0;                            ///< the same
  std::function<void(const fleet::Run& run)> save = {};  ///< called with a plan that is only shown
};
/// Plans, and shows, checks or makes the run; prints what became of the nodes, as records of
/// RunRecordFields; returns the exit code.
[[nodiscard]] int RunEdits(Context& context, EditJob job);

}  // namespace tools
