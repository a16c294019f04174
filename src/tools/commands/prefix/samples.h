#pragma once

#include <string>
#include <vector>

#include "tools/frame/verb.h"

namespace tools {

Verb PrefixInitVerb();

/// A sample file of the tree's etc/, built into the program.
struct Sample {
  std::string path;  ///< below the prefix
  std::string text;
};

std::vector<Sample> Samples();

}  // namespace tools
