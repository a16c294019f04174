#pragma once

#include "tools/frame/verb.h"

namespace tools {

// The verbs of the family "stat", one function each, in VERB.cpp.
Verb StatCollectVerb();
Verb StatShowVerb();
Verb StatCountersVerb();

}  // namespace tools
