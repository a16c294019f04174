// What package managers print when they are asked what they would do.

#include <algorithm>
#include <string>

#include "check.h"
#include "fleet/package_plan.h"
#include "pnl/str.h"

namespace {

using Action = fleet::PackageRequest::Action;

/// "redhat install|remove|update|all EXIT-CODE NAME..."; other first words are the Debian family.
fleet::PackageRequest ReadRequest(std::string line, fleet::PackageAnswer& answer) {
  const bool redhat = str::GetWord(line, ' ') == "redhat";
  answer.family = redhat ? fleet::PackageFamily::kRedHat : fleet::PackageFamily::kDebian;
  answer.manager = redhat ? "yum" : "apt-get";
  answer.machine = "x86_64";
  fleet::PackageRequest request;
  const std::string action = str::GetWord(line, ' ');
  if (action == "remove") request.action = Action::kRemove;
  if (action == "update") request.action = Action::kUpdate;
  if (action == "all") request.action = Action::kUpdateAll;
  answer.code = str::GetWord(line, ' ') == "0" ? 0 : 1;
  // Names are checked before they are asked for.
  std::erase_if(line, [](char c) { return c != ' ' && (c < 'a' || c > 'z'); });
  while (!line.empty()) {
    const std::string name = str::GetWord(line, ' ');
    if (!name.empty()) request.names.push_back(name);
  }
  return request;
}

/// A command line of the manager and its options, which no name has broken up.
bool IsCommand(const std::string& command) {
  return std::all_of(command.begin(), command.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 ||
           std::string_view(" +-._:~^=/&|;{}>").find(static_cast<char>(c)) !=
               std::string_view::npos;
  });
}

void CheckPlan(const fleet::PackagePlan& plan) {
  const bool changes = !plan.moves.empty();
  fuzz::Check(plan.refusal.empty() || !changes, "what is refused changes nothing");
  fuzz::Check(plan.command.empty() != changes, "a command for changes only");
  fuzz::Check(plan.no_undo.empty() || changes, "what cannot be undone is a change");
  fuzz::Check(!plan.is_absent || !plan.refusal.empty(), "what is not there is refused");
  fuzz::Check(IsCommand(plan.command), "a command line of names");
  for (const auto& [name, move] : plan.moves) {
    fuzz::Check(!name.empty(), "a package has a name");
    fuzz::Check(move.before != move.after, "a move leads elsewhere");
    fuzz::Check((name + move.after).find_first_of(" \n\t,") == std::string::npos,
                "words of a list");
  }
}

}  // namespace

/// The request's line; then, between form feeds, what is installed, what the manager would do, which
/// versions can be had, which packages nobody asked for.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(fuzz::Text(data, size));
  fleet::PackageAnswer answer;
  const fleet::PackageRequest request = ReadRequest(str::GetWord(text, '\n'), answer);
  answer.installed = fleet::ReadPackages(str::GetWord(text, '\f'));
  answer.plan = str::GetWord(text, '\f');
  answer.available = str::GetWord(text, '\f');
  answer.automatic = text;
  CheckPlan(fleet::ReadPackagePlan(request, answer));
  return 0;
}
