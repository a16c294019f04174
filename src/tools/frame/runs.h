#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "fleet/draft.h"
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
};

/// --secret, for a verb that changes content.
void AddSecretOption(opts::Args& args);
/// The effect of the verb with these words.
[[nodiscard]] HostEdit EditOf(Context& context, const Verb& verb);

/// The options of a run, for a verb that can have --nodes.
void AddRunOptions(opts::Args& args);
/// The fields that they add to a verb's records.
[[nodiscard]] std::vector<Field> EditFields();

/// Plans, and shows, checks or makes the run of a verb on --nodes, --node or this host; returns the
/// exit code.
[[nodiscard]] int RunEdit(Context& context, const Verb& verb);

/// The hosts of a run, from --nodes, --node or neither.
[[nodiscard]] std::vector<fleet::RunTarget> RunTargets(const Context& context);
/// The edits of a host, by its index.
using EditsOf = std::function<std::vector<HostEdit>(std::size_t target)>;
/// The same as RunEdit for any edits; several answers of a host are one list.
[[nodiscard]] int RunEdits(Context& context, const Verb& verb,
                           std::vector<fleet::RunTarget> targets, const EditsOf& edits);

}  // namespace tools
