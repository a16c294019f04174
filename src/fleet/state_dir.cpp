#include "fleet/state_dir.h"

#include <unistd.h>

#include <cstdlib>

#include "fleet/layout.h"
#include "fleet/panel_dir.h"
#include "pnl/file.h"

namespace fleet {

static std::string Variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::string StateDir() {
  if (geteuid() == 0) return IsPanelDir() ? layout::kFleetDir : layout::kHostStateDir;
  const std::string state = Variable("XDG_STATE_HOME");  // the XDG directories
  if (state.starts_with('/')) return pnl_file::ConcatPath(state, "brefir");
  return pnl_file::ConcatPath(Variable("HOME"), ".local/state/brefir");
}

}  // namespace fleet
