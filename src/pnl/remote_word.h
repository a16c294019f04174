#pragma once

#include <string>
#include <string_view>

/// Words for the scripts that run on nodes; for the sources of this directory only.
namespace pnl_host {

/// `text` as one quoted word, which `printf %b` decodes. csh(1) and fish(1) change line ends,
/// quotes, exclamation marks and backslashes even in quotes, and some shells other bytes that are not
/// ASCII: these are written in octal. `text` must not contain a NUL.
[[nodiscard]] std::string RemoteWord(std::string_view text);

}  // namespace pnl_host
