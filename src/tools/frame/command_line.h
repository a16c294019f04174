#pragma once

#include <string>
#include <vector>

#include "brefir/cmdarg.h"
#include "tools/frame/verb.h"

/// The command line of brefirctl, made from its families.
namespace tools {

/// The registration of brefirctl with the given families.
opts::Args Program(const std::vector<Family>& families);

/// The verb of a parsed command line; `words` is family and verb.
const Verb& Find(const std::vector<Family>& families, const std::vector<std::string>& words);

}  // namespace tools
