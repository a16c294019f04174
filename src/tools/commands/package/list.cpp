#include "fleet/host_file.h"
#include "fleet/host_steps.h"
#include "tools/commands/package/package.h"

namespace tools {
namespace {

using fleet::PackageFamily;

// Names are as in plans: "NAME", or "NAME:ARCHITECTURE" of a foreign one.
constexpr const char* kDpkgList =
    "sh -c 'n=$(dpkg --print-architecture) && dpkg-query -W "
    "-f=\"\\${db:Status-Status} \\${Package}:\\${Architecture} \\${Version}\\n\" | "
    "sed -n \"s/^installed //; t f; d; :f; s/^\\([^ ]*\\):\\($n\\|all\\) /\\1 /; p\"'";
constexpr const char* kRpmList =
    "rpm -qa --qf '%{NAME} %|EPOCH?{%{EPOCH}:}|%{VERSION}-%{RELEASE}.%{ARCH}\\n'";

[[noreturn]] void Fail(const pnl_host::Host& host, const std::string& why) {
  throw pnl_err::Error("node", host.Name(), "packages")
      .add_param("message", host.Name() + ": " + why);
}

Answer Installed(pnl_host::Host& host) {
  fleet::Looks looks;
  looks.family = true;
  const PackageFamily family = fleet::Look(host, looks).family;
  if (family == PackageFamily::kUnknown)
    Fail(host, "neither of the Red Hat nor of the Debian family; other systems are not supported");
  const bool debian = family == PackageFamily::kDebian;
  const pnl_host::Outcome run = host.Run(debian ? kDpkgList : kRpmList);
  if (run.code != 0) Fail(host, "the packages cannot be listed: " + fleet::Said(run));
  StringMap packages;
  for (std::string_view rest = run.output; !rest.empty();) {
    std::string_view line = str::NextWord(rest, '\n');
    const std::string name(str::NextWord(line, ' '));
    if (!name.empty()) packages[name] = str::Append(packages[name], std::string(line), ", ");
  }
  std::vector<Record> records;
  for (const auto& [name, version] : packages)
    records.push_back(Record().Add("name", name).Add("version", version));
  return records;
}

Answer Upgradable(pnl_host::Host& host) {
  const fleet::PackageRequest all{.action = fleet::PackageRequest::Action::kUpdateAll};
  fleet::Looks looks;
  looks.packages.insert(all);
  const fleet::Sight sight = fleet::Look(host, looks);
  const fleet::PackagePlan& plan = sight.packages.at(all);
  if (!plan.refusal.empty()) Fail(host, plan.refusal);
  std::vector<Record> records;
  for (const auto& [name, move] : plan.moves) {
    if (move.before.empty() || move.after.empty()) continue;
    records.push_back(
        Record().Add("name", name).Add("version", move.before).Add("candidate", move.after));
  }
  return records;
}

void Describe(opts::Args& args) {
  args.Option("upgradable")
      .Help("only packages that 'package update --all' would update, as the index has them");
}

}  // namespace

Verb PackageListVerb() {
  return {.name = "list",
          .summary = "Lists the installed packages.",
          .describe = Describe,
          .ask = [](Context& context) -> Question {
            if (context.values.Has("upgradable")) return Upgradable;
            return Installed;
          },
          .lists = true,
          .examples = {"--node 192.0.2.7", "--upgradable --nodes @all"},
          .fields = {kPackageField,
                     {"version", "its version; several of one name with commas between"},
                     {"candidate", "the version that it would get", "with --upgradable"}}};
}

}  // namespace tools
