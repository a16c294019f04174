#include "fleet/database.h"

#include "pnl/err.h"

namespace fleet {

bool HasTable(pnl_db::Cache& db, const pnl_db::CustomTable& table) {
  try {
    db.Select("select " + str::Join(table.Columns(), ", ") + " from " + table.Name() + " limit 0");
    return true;
  } catch (const pnl_err::Error& error) {
    // Class 42 has the errors of missing tables and columns, and of missing permission.
    if (error.param("sqlstate").starts_with("42")) return false;
    throw;
  }
}

pnl_err::Error Unusable(const std::string& setting, pnl_err::Error error) {
  std::string reason = error.param("errmsg");
  if (error.type() == pnl_err::kFile)
    reason = "cannot " + error.object() + " '" + error.value() + "': " + reason;
  error.add_param("message", setting + " in etc/brefir.conf cannot be used: " +
                                 (reason.empty() ? error.what() : reason));
  return error;
}

std::string SqlitePath(const std::string& address) {
  constexpr std::string_view kSqlite = "sqlite:";
  return address.starts_with(kSqlite) ? address.substr(kSqlite.size()) : "";
}

std::shared_ptr<pnl_db::Cache> OpenDatabase(const std::string& setting, const std::string& address,
                                            const std::function<void(pnl_db::Cache& db)>& prepare) {
  try {
    auto db = pnl_db::Cache::Open(address);
    prepare(*db);
    return db;
  } catch (const pnl_err::Error& error) {
    throw Unusable(setting, error);
  }
}

}  // namespace fleet
