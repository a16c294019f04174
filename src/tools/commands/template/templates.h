#pragma once

#include "tools/frame/verb.h"

namespace tools {

// The verbs of the family "template": one function each, in VERB.cpp; Show is in list.cpp.
Verb TemplateListVerb();
Verb TemplateShowVerb();
Verb TemplateUpdateVerb();
Verb TemplateInstallVerb();
Verb TemplateRemoveVerb();
Verb TemplateMarkVerb();

inline constexpr const char* kTemplateError = "ostemplate";  ///< type of errors of repositories

}  // namespace tools
