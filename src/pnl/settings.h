#pragma once

#include <map>
#include <string>
#include <string_view>

#include "pnl/export.h"

/// Settings of the installation: `etc/brefir.conf` below the working directory, lines "key =
/// value", "#" at the start of a line for comments. Later lines win; an unknown key is logged
/// (level 4).
namespace pnl_settings {

/// The value of `key`; when the file or the key is missing, the compiled default of that key. The
/// file is read again when it changed. Thread-safe. Throws pnl_err::Error of type "file" when the
/// file exists but cannot be read, pnl_err::Missed("setting", key) for a key that is not among
/// Defaults(). brefir.conf(5) says what each key means.
PNL_API std::string Get(std::string_view key);

/// All keys with their compiled defaults.
PNL_API const std::map<std::string, std::string, std::less<>>& Defaults();

}  // namespace pnl_settings
