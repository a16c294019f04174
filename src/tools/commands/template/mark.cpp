#include "pnl/file.h"
#include "tools/commands/catalogue.h"
#include "tools/commands/template/templates.h"

namespace tools {

static Change Mark(Context& context) {
  const std::string key = InstalledKey(context);
  const std::string marker = context.values.Str("MARKER");
  const std::string state = context.values.Str("STATE");
  const std::string dir = TemplateDir(context);
  const std::string path = pnl_file::ConcatPath(dir, key, marker);
  const auto make = [=]() -> Answer {
    const pnl_file::Lock lock = ostemplate::LockSettings(dir, key);
    if (state == "off") {
      pnl_file::RemoveFile(path);
    } else if (!pnl_file::Exists(path)) {
      pnl_file::Write(path, "");
    }
    return Record().Add("key", key).Add(marker, state == "on");
  };
  return {{{.node = "localhost",
            .kind = fleet::StepKind::kValue,
            .object = key + " " + marker,
            .before = pnl_file::Exists(path) ? "on" : "off",
            .after = state}},
          make};
}

static void Describe(opts::Args& args) {
  AddInstalledKey(args);
  args.Positional("MARKER")
      .OneOf({"autoupdate", "restrict"})
      .Help("autoupdate: update automatically; restrict: restrict access");
  args.Positional("STATE").OneOf({"on", "off"}).Help("set or remove the marker");
}

Verb TemplateMarkVerb() {
  return {.name = "mark",
          .summary = "Sets or removes a marker of an installed template.",
          .describe = Describe,
          .change = Mark,
          .checks = true,
          .examples = {"main__Debian-12 autoupdate on"},
          .fields = {{"key", "the template"},
                     {"autoupdate", "whether it is set now", "when this is MARKER"},
                     {"restrict", "", "when this is MARKER"}}};
}

}  // namespace tools
