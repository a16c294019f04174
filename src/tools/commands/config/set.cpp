#include "fleet/edits.h"
#include "tools/commands/config/file.h"
#include "tools/frame/login.h"

namespace tools {

/// The word VALUE; it must be read back from the line unchanged.
static std::string NewValue(const Context& context, const std::string& key,
                            const utils::LineSyntax& syntax) {
  const std::string& value = context.values.Str("VALUE");
  RequireOneLine(value, "VALUE");
  const std::string back =
      utils::lines::Get(utils::lines::Set("", key, value, "", syntax), key, syntax.quote, syntax);
  if (back == value) return value;
  throw UsageError("VALUE", value,
                   "VALUE '" + value + "' would be read back as '" + back +
                       "': use --quote for blanks at its ends, and --comment if it contains a "
                       "comment character");
}

static HostEdit Set(Context& context) {
  const ConfigWords words = ReadConfigWords(context);
  const std::string key = ConfigKey(context, words.syntax);
  const std::string value = NewValue(context, key, words.syntax);
  const std::string& after = context.values.Str("after");
  RequireOneLine(after, "--after");
  fleet::SetKeyOptions options{.syntax = words.syntax, .after = after};
  options.create = context.values.Has("create");
  return ConfigEdit(fleet::SetKeyEdit(RunPath(context, words), key, value, options),
                    Record().Add("path", words.path).Add("key", key).Add("value", value));
}

static void Describe(opts::Args& args) {
  DescribeConfigKey(args);
  args.Positional("VALUE").Help("its new value");
  args.Option("after").Value("KEY").Help(
      "put the line after the first line that begins with this text, and remove other lines of the "
      "key; fail if no line begins with it");
  args.Option("create").Help("make the file if it is missing");
  AddSecretOption(args);
}

Verb ConfigSetVerb() {
  return {.name = "set",
          .summary = "Sets a key; all other lines stay as they are.",
          .describe = Describe,
          .edit = Set,
          .examples = {"/etc/default/locale LANG C.UTF-8 --dry-run",
                       "/etc/app.conf port 8080 --after host", "/etc/app.conf port 8080 --create"},
          .fields = {kConfigFile, kConfigKey, {"value", "its value now"}}};
}

}  // namespace tools
