#pragma once

#include <functional>
#include <memory>
#include <string>

#include "pnl/err.h"
#include "pnldb/db.h"

/// Opening databases of settings; for the sources of this directory only.
namespace fleet {

/// Whether the table is there, with all of its columns.
[[nodiscard]] bool HasTable(pnl_db::Cache& db, const pnl_db::CustomTable& table);

/// The path of an SQLite database; "" for another address.
[[nodiscard]] std::string SqlitePath(const std::string& address);

/// The error with a message that names the setting.
[[nodiscard]] pnl_err::Error Unusable(const std::string& setting, pnl_err::Error error);

/// Opens the database at `address`, the value of `setting`, and calls `prepare`, which makes missing
/// tables. Errors get a message that names the setting.
[[nodiscard]] std::shared_ptr<pnl_db::Cache> OpenDatabase(
    const std::string& setting, const std::string& address,
    const std::function<void(pnl_db::Cache& db)>& prepare);

}  // namespace fleet
