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

/// Plans for changes of the panel's own files. A plan shows what a call of the library would
/// change; the call itself makes the change.
///
///     ostemplate::Manage catalogue("nodeadmin", "5.275.0", "/opt/panel/templates", location);
///     const fleet::Step step = fleet::MacroStep(catalogue, name, "timezone", "UTC");
///     if (fleet::Changes(step)) catalogue.SetOsTemplateMacroValue(name, "timezone", "UTC");
///
/// Only PrefixPart::make changes something. Thread-safe.
namespace fleet {

/// The change of the macro values file of the installed template `key` when `macro` gets `value`;
/// without a value it returns to its default. Throws "file" when the file cannot be read.
[[nodiscard]] FLEET_API Step MacroStep(ostemplate::Manage& catalogue, const std::string& key,
                                       const std::string& macro,
                                       const std::optional<std::string>& value);

/// The change of the file of access levels and owners of recipes that `edit` makes; `edit` works on
/// a copy. Throws what `edit` throws, and "file".
[[nodiscard]] FLEET_API Step RecipeParamsStep(
    const recipe::Manage& catalogue, const std::function<void(recipe::Manage& copy)>& edit);

/// The change of a repository's line when it gets `location`; without a location the line is
/// removed. `before` is empty when etc/ostemplates.conf has no line for it. Names and passwords in
/// addresses are not shown, only that they change.
[[nodiscard]] FLEET_API Step RepositoryStep(const ostemplate::Repo& repositories,
                                            const std::string& name,
                                            const std::optional<std::string>& location);

/// The downloads of an update of the repositories.
[[nodiscard]] FLEET_API Plan FetchPlan(const ostemplate::Repo& repositories);

/// One file, directory or link of a panel's directory. When something already exists at its path,
/// it stays: the administrator may have changed it.
struct FLEET_API PrefixPart {
  bool missing;
  Step step;                   ///< its object is the path
  std::function<bool()> make;  ///< makes a missing part; false when somebody else made it
};

/// The parts of the prefix `dir`: directories, sample files (path below it, and text), and links in
/// sbin to programs. A file is made completely or not at all. Failures are "file".
[[nodiscard]] FLEET_API std::vector<PrefixPart> PrefixParts(
    const std::string& dir, const std::vector<std::pair<std::string, std::string>>& samples,
    const std::vector<std::string>& programs);

}  // namespace fleet
