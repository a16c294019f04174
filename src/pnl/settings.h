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
/// but cannot be read, and pnl_err::Missed("setting", key) for a key that is not in this list:
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
///   known_hosts         (none)      file of their host keys; else ~/.ssh/known_hosts of root
///   signing_key_server  http://keys.example.org       host of package signing keys
///   stat_database       sqlite:var/stat.db            database of the statistics
PNL_API std::string Get(std::string_view key);

/// All keys with their compiled defaults.
PNL_API const std::map<std::string, std::string, std::less<>>& Defaults();

}  // namespace pnl_settings
