#pragma once

#include <functional>
#include <string>

#include "brefir/ostemplates.h"
#include "tools/frame/verb.h"

/// What the verbs of the family "macro" share.
namespace tools {

// One function per verb, in VERB.cpp.
Verb MacroListVerb();
Verb MacroSetVerb();
Verb MacroResetVerb();

/// The macros of an installed template.
[[nodiscard]] ostemplate::TemplateMacroMap Macros(const Context& context, const std::string& key);

/// A change of the values file of the template `key`: `edit` says what becomes of the values,
/// `apply` makes it so in this thread's transaction. It is undone when the command of
/// --undo-on-failure fails.
[[nodiscard]] Change MacroChange(const Context& context, const std::string& key,
                                 const std::string& macro,
                                 const std::function<void(StringMap& values)>& edit,
                                 const std::function<void()>& apply);

/// The words KEY and NAME.
void DescribeMacro(opts::Args& args);
/// --undo-on-failure
void DescribeMacroChange(opts::Args& args);

/// What is told of a change.
[[nodiscard]] std::vector<Field> MacroFields();

}  // namespace tools
