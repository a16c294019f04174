#include "fleet/failed_nodes.h"

#include "fleet/state_dir.h"
#include "pnl/file.h"
#include "pnl/str.h"

namespace fleet {
namespace {

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
