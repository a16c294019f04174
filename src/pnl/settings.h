#pragma once

#include <map>
#include <string>
#include <string_view>

#include "pnl/export.h"

/// The settings of the installation, from `etc/brefir.conf` below the working directory. Its lines
/// are "key = value"; a line that begins with "#" is a comment. When a key occurs twice, the later
/// line counts. An unknown key is logged (level 4).
namespace pnl_settings {

/// The value of `key`; the compiled default when the file or the key is missing. The file is read
/// again when it changes. Thread-safe. Throws pnl_err::Error of type "file" when the file exists
/// but cannot be read, and pnl_err::Missed("setting", key) for a key that Defaults() does not have.
/// brefir.conf(5) describes the keys.
PNL_API std::string Get(std::string_view key);

/// All keys with their compiled defaults.
PNL_API const std::map<std::string, std::string, std::less<>>& Defaults();

}  // namespace pnl_settings
