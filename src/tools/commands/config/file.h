#pragma once

#include <functional>
#include <string>

#include "brefir/simpleconfig.h"
#include "pnl/host.h"
#include "tools/frame/verb.h"

/// What the verbs of the family "config" share.
namespace tools {

// One function per verb, in VERB.cpp.
Verb ConfigGetVerb();
Verb ConfigSetVerb();
Verb ConfigRemoveVerb();
Verb ConfigListVerb();

/// What the command line says of a file.
struct ConfigWords {
  std::string path;
  utils::LineSyntax syntax;
};
[[nodiscard]] ConfigWords ReadConfigWords(const Context& context);

/// The file that the command line names, with what it says about its lines.
class ConfigFile {
 public:
  explicit ConfigFile(const Context& context);  ///< opens the host that the command line names
  ConfigFile(const Context& context, ConfigWords words, pnl_host::Host host);

  const std::string& Path() const { return words_.path; }
  const utils::LineSyntax& Syntax() const { return words_.syntax; }

  /// Its text. A missing file is an error.
  std::string Text();

 private:
  const Context& context_;
  ConfigWords words_;
  pnl_host::Host host_;
};

/// The effect of `edit` on the file; the output is `record`.
[[nodiscard]] HostEdit ConfigEdit(fleet::Edit edit, const Record& record);
/// The file's path for runs: absolute, on this host too.
[[nodiscard]] std::string RunPath(const Context& context, const ConfigWords& words);

/// A word that stands in one line: else a usage error that names it as `what`.
void RequireOneLine(const std::string& word, const char* what);

/// The word KEY, which has to be one that a line can have.
[[nodiscard]] std::string ConfigKey(const Context& context, const utils::LineSyntax& syntax);

[[nodiscard]] pnl_err::Missed NoKey(const ConfigFile& file, const std::string& key);

void DescribeConfigFile(opts::Args& args);
void DescribeConfigKey(opts::Args& args);

inline const Field kConfigFile = {"path", "the file"};
inline const Field kConfigKey = {"key", "the key"};

}  // namespace tools
