#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "brefir/ostemplates.h"
#include "brefir/recipes.h"
#include "fleet/export.h"
#include "fleet/plan.h"

/// What a panel keeps on its own host, as plans: what a change of it would do, to be shown and asked
/// about. It is made by the library's own calls afterwards, which do the same.
///
///     ostemplate::Manage catalogue("nodeadmin", "5.275.0", "/opt/panel/templates", location);
///     const fleet::Step step = fleet::MacroStep(catalogue, name, "timezone", "UTC");
///     if (fleet::Changes(step)) catalogue.SetOsTemplateMacroValue(name, "timezone", "UTC");
///
/// Nothing is changed here, but by PrefixPart::make. Any thread may call these.
namespace fleet {

/// The file of macro values of the installed template `key` when `macro` gets `value`; none returns
/// it to its default. Throws "file" where it cannot be read.
[[nodiscard]] FLEET_API Step MacroStep(ostemplate::Manage& catalogue, const std::string& key,
                                       const std::string& macro,
                                       const std::optional<std::string>& value);

/// The file of recipes' access levels and owners after `edit`, which gets a copy of it. Throws what
/// `edit` throws, and "file".
[[nodiscard]] FLEET_API Step RecipeParamsStep(
    const recipe::Manage& catalogue, const std::function<void(recipe::Manage& copy)>& edit);

/// The line of a repository when it gets `location`; none removes it. `before` is none where
/// etc/ostemplates.conf has no line of it. Names and passwords of addresses are not shown, only that
/// they change.
[[nodiscard]] FLEET_API Step RepositoryStep(const ostemplate::Repo& repositories,
                                            const std::string& name,
                                            const std::optional<std::string>& location);

/// What an update of the repositories fetches.
[[nodiscard]] FLEET_API Plan FetchPlan(const ostemplate::Repo& repositories);

/// One thing that a panel's directory has. What is there already stays as it is, whatever it is: the
/// administrator may have changed it.
struct FLEET_API PrefixPart {
  bool missing;
  Step step;                   ///< its object is the path
  std::function<bool()> make;  ///< for what is missing; false when somebody else has made it
};

/// The directories of the prefix `dir`, its sample files (path below it, and text), and links in
/// sbin to programs. A file is made whole or not at all. What cannot be made throws "file".
[[nodiscard]] FLEET_API std::vector<PrefixPart> PrefixParts(
    const std::string& dir, const std::vector<std::pair<std::string, std::string>>& samples,
    const std::vector<std::string>& programs);

}  // namespace fleet
