#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/frame/verb.h"

/// Commands that stand in a file.
namespace tools {

/// A parsed command. The edit refers to what stands before it.
struct LineCommand {
  LineCommand(const opts::Values& parsed, const std::string& dir, Context& context, Origin origin,
              const Verb& verb)
      : values(parsed),
        line(values, dir, context.out, context.bar, origin),
        edit(EditOf(line, verb)) {}
  LineCommand(const LineCommand&) = delete;
  LineCommand& operator=(const LineCommand&) = delete;

  const opts::Values values;
  Context line;
  HostEdit edit;
};

/// Reads them as the program reads its command line. Thread-safe.
class LineParser {
 public:
  /// `dir`: where relative paths of this host start.
  LineParser(Context& context, std::string dir);

  /// The verb of a command.
  struct Call {
    const Family* family;
    const Verb* verb;
  };
  /// Throws what is wrong with the first words.
  [[nodiscard]] Call Find(const std::vector<std::string>& words) const;

  using Meaning = opts::Args::Meaning;
  /// The command of these words for this host, or for nodes. Throws what is wrong with it, also for
  /// words that can stand on a command line only.
  [[nodiscard]] std::shared_ptr<const LineCommand> Parse(const Call& call,
                                                         const std::vector<std::string>& words,
                                                         Origin origin,
                                                         const Meaning& meaning) const;

 private:
  bool IsForeign(const Call& call, const std::string& option) const;
  void RequireAllowed(const Call& call, const opts::Values& values, Origin origin) const;

  Context& context_;
  const std::string dir_;
  const std::vector<Family> families_;
  const opts::Args program_;
};

}  // namespace tools
