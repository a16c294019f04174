#include <filesystem>

#include "fleet/panel.h"
#include "pnl/file.h"
#include "tools/commands/prefix/samples.h"

namespace tools {

/// In a build all programs are in one directory; in an installation only some of them, or none.
static std::vector<std::string> Programs() {
  const std::filesystem::path here = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  std::vector<std::string> programs;
  for (const char* name : {"brefirctl", "ost_install", "pnlctl"}) {
    std::filesystem::path program = (here / name).lexically_normal();
    if (!pnl_file::Exists(program)) program = (here / BREFIR_HELPER_DIR / name).lexically_normal();
    if (pnl_file::Exists(program)) programs.push_back(program);
  }
  return programs;
}

static Change Init(Context& context) {
  const std::string dir = context.Path(context.values.Str("DIR"));
  const std::vector<fleet::PrefixPart> parts = fleet::PrefixParts(dir, Samples(), Programs());
  fleet::Plan plan;
  for (const fleet::PrefixPart& part : parts) {
    if (part.missing) plan.push_back(part.step);
  }
  const auto make = [=]() -> Answer {
    std::vector<Record> records;
    for (const fleet::PrefixPart& part : parts) {
      const bool made = part.missing && part.make();
      records.push_back(Record()
                            .Add("path", part.step.object)
                            .Add("state", made ? "made" : "kept")
                            .Add("changed", made));
    }
    return {records, {"path", "state"}};
  };
  return {plan, make};
}

Verb PrefixInitVerb() {
  return {
      .name = "init",
      .summary = "Makes etc, var and sbin with sample configuration; keeps existing files.",
      .describe = [](opts::Args& args) { args.Positional("DIR").Help("made if it is missing"); },
      .change = Init,
      .checks = true,
      .examples = {"/opt/panel"},
      .fields = {{"path", "a directory, file or link"}, {"state", "made, or kept if it existed"}},
      .place = Place::kStart};
}

}  // namespace tools
