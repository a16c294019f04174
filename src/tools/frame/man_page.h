#pragma once

#include <string>
#include <vector>

#include "tools/frame/verb.h"

/// Man pages (man(7) macros), rendered from what parses the command lines.
namespace tools {

/// brefirctl(1), or brefirctl-FAMILY(1) with all its verbs. An unknown family is pnl_err::Error of
/// type "usage".
[[nodiscard]] std::string ManPage(const std::vector<Family>& families, const opts::Args& program,
                                  const std::string& family);

/// What the page of another program has beside its command line.
struct ManNotes {
  std::vector<Note> files;
  std::vector<std::string> see_also;  ///< "brefirctl(1)"
};

/// NAME(8) of a program without families.
[[nodiscard]] std::string ManPage(const opts::Args& program, const ManNotes& notes);

}  // namespace tools
