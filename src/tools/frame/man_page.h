#pragma once

#include <string>
#include <vector>

#include "tools/frame/verb.h"

/// Man pages of brefirctl.
namespace tools {

/// brefirctl(1), or brefirctl-FAMILY(1) with all its verbs. An unknown family is pnl_err::Error of
/// type "usage".
[[nodiscard]] std::string ManPage(const std::vector<Family>& families, const opts::Args& program,
                                  const std::string& family);

}  // namespace tools
