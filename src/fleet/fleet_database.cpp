#include "fleet/fleet_database.h"

#include <fcntl.h>
#include <unistd.h>

#include "fleet/database.h"
#include "fleet/layout.h"
#include "fleet/panel_dir.h"
#include "fleet/state_dir.h"
#include "pnl/file.h"
#include "pnl/settings.h"

namespace fleet {
namespace {

constexpr const char* kSetting = "fleet_database";

std::string Address() {
  std::string address = pnl_settings::Get(kSetting);
  const bool is_default = address == pnl_settings::Defaults().find(kSetting)->second;
  if (!is_default || (geteuid() == 0 && IsPanelDir())) return address;
  return "sqlite:" + pnl_file::ConcatPath(StateDir(), layout::kFleetDatabase);
}

/// SQLite itself would make it readable for everybody.
void MakePrivate(const std::string& path) {
  if (pnl_file::Exists(path)) return;
  const std::string folder = pnl_file::Folder(path);
  if (!folder.empty()) pnl_file::MkDir(folder);
  constexpr mode_t kPrivate = 0600;
  static_cast<void>(pnl_file::Open(path, O_RDWR | O_CREAT, kPrivate));
}

}  // namespace

std::shared_ptr<pnl_db::Cache> OpenFleetDatabase() {
  const std::string address = Address();
  try {
    if (const std::string path = SqlitePath(address); !path.empty()) MakePrivate(path);
  } catch (const pnl_err::Error& error) {
    throw Unusable(kSetting, error);
  }
  return OpenDatabase(kSetting, address, [](pnl_db::Cache&) {});
}

std::string FleetDatabaseAddress() {
  std::string address = Address();
  const std::size_t scheme = address.find("://");
  if (scheme == std::string::npos) return address;
  const std::size_t begin = scheme + 3;
  const std::size_t end = address.find_first_of("@/", begin);  // a password may contain "?"
  const bool has_user = end != std::string::npos && address[end] == '@';
  const std::string place = address.substr(has_user ? end + 1 : begin);
  return address.substr(0, begin) + place.substr(0, place.find('?'));
}

bool HasFleetDatabase() {
  const std::string path = SqlitePath(Address());
  return path.empty() || pnl_file::Exists(path);
}

}  // namespace fleet
