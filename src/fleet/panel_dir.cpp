#include "fleet/panel_dir.h"

#include <cstdlib>

#include "brefir/cmdarg.h"
#include "brefir/simpleconfig.h"
#include "fleet/layout.h"
#include "pnl/err.h"
#include "pnl/file.h"

namespace fleet {

namespace {

/// The setting in the host's own settings file; "" when there is none.
std::string HostPrefix() {
  std::string prefix;
  for (const utils::lines::Entry& entry :
       utils::lines::List(pnl_file::Read(layout::kHostConf), "", {"", "=", ""})) {
    if (entry.key == "prefix") prefix = entry.value;
  }
  if (prefix.empty() || prefix.starts_with('/')) return prefix;
  throw pnl_err::Error(opts::kUsageError, "prefix", prefix)
      .add_param("message", "the prefix '" + prefix + "' in " + layout::kHostConf +
                                " must be an absolute path: it must begin with \"/\"");
}

}  // namespace

bool IsPanelDir() {
  // "/" has etc and var too, but is never a panel's directory: the user forgot --prefix.
  if (pnl_file::GetCurrentDir() == "/")
    return pnl_file::Exists(layout::kHostConf) && HostPrefix().empty();
  return pnl_file::IsDir("etc") || pnl_file::IsDir("var");
}

std::string DefaultPrefix() {
  const char* prefix = std::getenv("BREFIR_PREFIX");
  if (prefix != nullptr && *prefix != '\0') return prefix;
  return IsPanelDir() ? "." : HostPrefix();
}

}  // namespace fleet
