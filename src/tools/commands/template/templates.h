#pragma once

#include "brefir/ostemplates.h"
#include "tools/frame/verb.h"

namespace tools {

// One function per verb of the family "template", in VERB.cpp.
Verb TemplateListVerb();
Verb TemplateShowVerb();
Verb TemplateUpdateVerb();
Verb TemplateInstallVerb();
Verb TemplateRemoveVerb();
Verb TemplateMarkVerb();

inline constexpr const char* kTemplateError = "ostemplate";  ///< type of errors of repositories

/// All templates; repositories that fail are told and passed. What is told of one.
[[nodiscard]] ostemplate::OsInfoMap AllTemplates(Context& context);
[[nodiscard]] Record TemplateRecord(const std::string& key, const ostemplate::OsMetaInfo& info);
[[nodiscard]] std::vector<Field> TemplateFields();

}  // namespace tools
