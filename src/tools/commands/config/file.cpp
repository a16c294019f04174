#include "tools/commands/config/file.h"

#include <filesystem>

#include "pnl/file.h"
#include "tools/commands/host_file.h"
#include "tools/frame/login.h"

namespace tools {

static utils::LineSyntax GivenSyntax(const Context& context) {
  utils::LineSyntax syntax{context.values.Str("comment"), context.values.Str("separator"),
                           context.values.Str("quote")};
  if (syntax.separator.empty())
    throw UsageError("--separator", "", "--separator must not be empty: it ends the key");
  for (const char* option : {"comment", "separator", "quote"}) {
    const std::string& value = context.values.Str(option);
    if (value.find('\n') == std::string::npos) continue;
    throw UsageError(std::string("--") + option, value,
                     std::string("--") + option + " must not contain a line end");
  }
  return syntax;
}

/// The word FILE, which must not be a directory.
static const std::string& FileWord(const Context& context) {
  const std::string& word = context.values.Str("FILE");
  if (!word.ends_with('/')) return word;
  throw UsageError("FILE", word, "FILE '" + word + "' names a directory; give a file");
}

// --- The file

ConfigWords ReadConfigWords(const Context& context) {
  const std::string& word = FileWord(context);
  return {context.HasNodes() ? NodePath(context, "FILE") : context.Path(word),
          GivenSyntax(context)};
}

ConfigFile::ConfigFile(const Context& context)
    : ConfigFile(context, ReadConfigWords(context), OpenHost(context)) {}

ConfigFile::ConfigFile(const Context& context, ConfigWords words, pnl_host::Host host)
    : context_(context), words_(std::move(words)), host_(std::move(host)) {}

std::string ConfigFile::Text() {
  return host_.IsLocal() ? pnl_file::ReadE(words_.path) : HostText(host_, words_.path);
}

HostEdit ConfigEdit(fleet::Edit edit, const Record& record) {
  return {.look = std::move(edit.look),
          .make = [make = std::move(edit.make), record](fleet::Draft& draft) -> Answer {
            make(draft);
            return record;
          }};
}

std::string RunPath(const Context& context, const ConfigWords& words) {
  return words.path.starts_with('/') ? words.path
                                     : context.Path(std::filesystem::absolute(words.path));
}

// --- Words

void RequireOneLine(const std::string& word, const char* what) {
  if (word.find('\n') == std::string::npos) return;
  throw UsageError(what, word, std::string(what) + " must not contain a line end");
}

std::string ConfigKey(const Context& context, const utils::LineSyntax& syntax) {
  const std::string& key = context.values.Str("KEY");
  const auto refuse = [&](const std::string& why) {
    return UsageError("KEY", key, "KEY '" + key + "' " + why);
  };
  RequireOneLine(key, "KEY");
  if (key.empty()) throw refuse("must not be empty");
  if (str::TrimView(key).size() != key.size()) throw refuse("must not begin or end with a blank");
  if (key.find(syntax.separator) != std::string::npos)
    throw refuse("must not contain the separator '" + syntax.separator + "'");
  if (syntax.comment.find(key.front()) != std::string::npos)
    throw refuse("must not begin with a comment character");
  return key;
}

pnl_err::Missed NoKey(const ConfigFile& file, const std::string& key) {
  pnl_err::Missed error("key", key);
  error.add_param("message", "'" + file.Path() + "' has no key '" + key + "'");
  return error;
}

void DescribeConfigFile(opts::Args& args) {
  args.Positional("FILE").Help("a file with keys and values");
}

void DescribeConfigKey(opts::Args& args) {
  DescribeConfigFile(args);
  args.Positional("KEY").Help("the key");
}

}  // namespace tools
