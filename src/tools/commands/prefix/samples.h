#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/frame/verb.h"

namespace tools {

Verb PrefixInitVerb();

/// The sample files of the tree's etc/, built into the program: paths below a prefix, and texts.
std::vector<std::pair<std::string, std::string>> Samples();

}  // namespace tools
