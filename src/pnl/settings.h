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
/// file exists but cannot be read, pnl_err::Missed("setting", key) for a key that is none of these:
///
///   module_name         panel       the panel module that this installation is
///   module_version      1.0         its version
///   template_dir        templates   installed templates, below the prefix unless absolute
///   template_location   http://download.example.org/OSTemplate   built-in template repository
///   recipe_dir          var/recipes recipes and their parameters, below the prefix unless absolute
///   download_server     http://download.example.org   host of recipes and package repositories
///   private_key         etc/panel.key       the panel's own SSH key, and
///   public_key          etc/panel.key.pub   its public half
///   nodes               (none)      the managed nodes, or the file that lists them
///   known_hosts         (none)      their host keys, else those that root's ssh knows
///   signing_key_server  http://keys.example.org       host of package signing keys
///   stat_database       sqlite:var/stat.db            database of the statistics
PNL_API std::string Get(std::string_view key);

/// All keys with their compiled defaults.
PNL_API const std::map<std::string, std::string, std::less<>>& Defaults();

}  // namespace pnl_settings
