#pragma once

#include "tools/frame/verb.h"

/// The verbs of brefirctl node that copy between this host and a node: get, put, tree, sync.
namespace tools {

[[nodiscard]] std::vector<Verb> NodeCopies();

}  // namespace tools
