#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "brefir/str_utils.h"
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

using Arguments = std::vector<std::string>;

inline constexpr std::size_t kMaxArguments = 6000;  ///< of one statement; SQLite takes 32,766

/// Calls `use` with "values (?, ?), ..." and its arguments, with as many rows at once as a
/// statement can have.
template <class Use>
void InGroups(const Arguments& rows, std::size_t columns, const Use& use) {
  const std::string marks = "(" + str::Join(Arguments(columns, "?"), ", ") + ")";
  std::size_t count = kMaxArguments / columns;
  for (auto begin = rows.begin(); begin != rows.end();) {
    count = std::min(count, static_cast<std::size_t>(rows.end() - begin) / columns);
    const auto end = begin + static_cast<std::ptrdiff_t>(count * columns);
    use("values " + str::Join(Arguments(count, marks), ", "), Arguments(begin, end));
    begin = end;
  }
}

}  // namespace fleet
