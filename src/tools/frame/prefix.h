#pragma once

#include <string>

/// The panel's directory.
namespace tools {

/// Whether the working directory is a panel's: it has etc or var.
bool IsPrefix();

/// The panel's directory when --prefix does not name it: that of $BREFIR_PREFIX, else the working
/// directory where that is one, else that of the setting "prefix" in /etc/brefir.conf, which has to
/// be absolute, else "".
std::string DefaultPrefix();

}  // namespace tools
