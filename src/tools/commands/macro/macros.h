#pragma once

#include <optional>
#include <string>

#include "brefir/ostemplates.h"
#include "tools/frame/verb.h"

/// What the verbs of the family "macro" share.
namespace tools {

Verb MacroListVerb();
Verb MacroSetVerb();
Verb MacroResetVerb();

/// The macros of an installed template.
[[nodiscard]] ostemplate::TemplateMacroMap Macros(const Context& context, const std::string& key);

/// The macro NAME of the template KEY gets `value`; none returns it to its default. The change is
/// undone when the command of --undo-on-failure fails.
[[nodiscard]] Change MacroChange(Context& context, const std::optional<std::string>& value);
/// The words and options of such a change, and the fields of its answer.
void DescribeMacroChange(opts::Args& args);
[[nodiscard]] std::vector<Field> MacroFields();

}  // namespace tools
