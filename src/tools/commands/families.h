#pragma once

#include <vector>

#include "tools/frame/verb.h"

namespace tools {

// One function per family, in FAMILY/family.cpp.
Family TemplateFamily();
Family MacroFamily();
Family RepoFamily();
Family RecipeFamily();
Family TaskFamily();
Family RunFamily();
Family ApplyFamily();
Family NodeFamily();
Family KeyFamily();
Family ConfigFamily();
Family SysctlFamily();
Family PackageFamily();
Family FrontdFamily();
Family StatFamily();
Family PrefixFamily();
Family DemoFamily();

/// All families, in the order in which help lists them.
std::vector<Family> Families();

}  // namespace tools
