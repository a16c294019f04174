#include "fleet/config_key.h"
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

static Change Set(Context& context) {
  ConfigFile file(context);
  const utils::LineSyntax& syntax = file.Syntax();
  const std::string key = ConfigKey(context, syntax);
  const std::string value = NewValue(context, key, syntax);
  const std::string& after = context.values.Str("after");
  RequireOneLine(after, "--after");
  const auto edit = [&](const std::string& text) {
    try {
      return fleet::SetConfigKey(text, key, value, syntax, after);
    } catch (pnl_err::Missed& error) {
      error.add_param("message", "'" + file.Path() + "' has no line that begins with '" + after +
                                     "' (--after); nothing was changed");
      throw;
    }
  };
  return file.ChangeBy(edit, Record().Add("path", file.Path()).Add("key", key).Add("value", value),
                       context.values.Has("create"));
}

static void Describe(opts::Args& args) {
  DescribeConfigKey(args);
  args.Positional("VALUE").Help("its new value");
  args.Option("after").Value("KEY").Help(
      "put the line after the first line that begins with this text, and remove other lines of the "
      "key; fail if no line begins with it");
  args.Option("create").Help("make the file if it is missing");
}

Verb ConfigSetVerb() {
  return {.name = "set",
          .summary = "Sets a key; all other lines stay as they are.",
          .describe = Describe,
          .change = Set,
          .checks = true,
          .examples = {"/etc/default/locale LANG C.UTF-8 --dry-run",
                       "/etc/app.conf port 8080 --after host", "/etc/app.conf port 8080 --create"},
          .fields = {kConfigFile, kConfigKey, {"value", "its value now"}}};
}

}  // namespace tools
