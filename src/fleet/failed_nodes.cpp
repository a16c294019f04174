#include "fleet/failed_nodes.h"

#include <unistd.h>

#include <cstdlib>

#include "fleet/layout.h"
#include "fleet/panel_dir.h"
#include "pnl/file.h"
#include "pnl/str.h"

namespace fleet {
namespace {

std::string Variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

/// The directory of what brefir remembers for this user. Only root may write in the panel's own.
std::string StateDir() {
  if (geteuid() == 0) return IsPanelDir() ? layout::kFleetDir : layout::kHostStateDir;
  const std::string state = Variable("XDG_STATE_HOME");  // the XDG directories
  if (state.starts_with('/')) return pnl_file::ConcatPath(state, "brefir");
  return pnl_file::ConcatPath(Variable("HOME"), ".local/state/brefir");
}

std::string Path() {
  return pnl_file::ConcatPath(StateDir(), "failed");
}

}  // namespace

std::vector<std::string> FailedNodes() {
  std::vector<std::string> names;
  std::string text = pnl_file::Read(Path());
  while (!text.empty()) names.push_back(str::GetWord(text, '\n'));
  return names;
}

void KeepFailedNodes(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += name + "\n";
  pnl_file::MkDir(StateDir());
  pnl_file::Write(Path(), text);
}

}  // namespace fleet
