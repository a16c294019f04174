#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fleet/change_file.h"
#include "fleet/inventory.h"
#include "tools/commands/apply/change_line.h"
#include "tools/frame/verb.h"

/// What belongs to "apply".
namespace tools {

/// The commands of a change file for the nodes of a command line.
class ChangeCommands {
 public:
  /// Reads the file FILE. `nodes` and `targets` are the same hosts; this host is no node.
  ChangeCommands(Context& context, const std::vector<fleet::Node>& nodes,
                 const std::vector<fleet::RunTarget>& targets);

  /// What is wrong with the file, in the order of its lines. The other functions need a file without
  /// mistakes.
  const std::vector<pnl_err::Error>& Mistakes() const { return file_.mistakes; }
  /// What the file does on a host. Thread-safe.
  std::vector<HostEdit> Of(std::size_t target) const;
  /// As fleet::RunOptions::before_commit.
  std::function<std::string()> BeforeCommit() const;

 private:
  struct Line {
    fleet::ChangeLine read;
    LineParser::Call call;
    std::shared_ptr<const LineCommand> command = {};  ///< null: each host has another one
  };

  std::shared_ptr<const LineCommand> Parse(const Line& line, const StringMap& values) const;
  void ParseForAll(Line& line);
  void ParseForEach(const Line& line);
  void Note(const fleet::ChangeLine& line, const std::string& what);
  template <class Work>
  auto At(const fleet::ChangeLine& line, const Work& work) const;
  pnl_err::Error Placed(const pnl_err::Error& error, const fleet::ChangeLine& line) const;

  const std::string name_;  ///< of the file, for people
  const Origin origin_;
  const LineParser parser_;
  std::vector<std::string> hosts_;  ///< names
  std::vector<StringMap> values_;   ///< of each host
  fleet::ChangeFile file_;
  std::vector<Line> lines_;
  std::vector<std::function<std::string()>> before_commit_;
};

/// Writes the plan to --save-plan.
void SavePlan(Context& context, const std::string& command, const fleet::Run& run);
/// Throws if --save-plan cannot be a file, before anybody waits for nodes.
void RequirePlanFile(const Context& context);
/// The run of --plan.
[[nodiscard]] EditJob SavedJob(Context& context);

}  // namespace tools
