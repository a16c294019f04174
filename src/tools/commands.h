#pragma once

#include <vector>

#include "brefir/cmdarg.h"
#include "tools/command.h"

namespace tools {

// One function per family, in <name>_commands.cpp.
Family PrefixFamily();
Family TaskFamily();

/// All families, in the order in which help lists them.
std::vector<Family> Families();

/// The registration of brefirctl with the given families.
opts::Args Program(const std::vector<Family>& families);

/// The command that was parsed; `words` is family and verb.
const Command& Find(const std::vector<Family>& families, const std::vector<std::string>& words);

}  // namespace tools
