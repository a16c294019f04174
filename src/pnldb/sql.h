#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// What has to be known of a statement before a database sees it.
namespace pnl_db {

enum class Syntax { kSqlite, kPostgres };

/// The words, quoted parts and signs of a statement, as views of it. White space and comments are
/// left out.
std::vector<std::string_view> Tokens(std::string_view sql, Syntax syntax);

/// Whether the statement may change rows, as far as its words tell: a function is not looked into.
bool MayChange(std::string_view sql);

/// For PostgreSQL: `sql` with "$1", "$2", ... for each "?".
std::string Numbered(std::string_view sql);

/// A statement for SQLite.
struct TypedSql {
  std::string sql;
  std::size_t arguments;  ///< as many as it has "?"
  bool doubled;           ///< they are wanted as text, and once more as numbers where they are some
};

/// PostgreSQL takes an argument for what it is compared with; SQLite does so beside a column only,
/// and finds every number less than any text. So the value beside the argument decides here: of
/// "sum(value) > ?" becomes "sum(value) > (case typeof(sum(value)) when 'text' then ?1 else ?2
/// end)".
TypedSql Typed(std::string_view sql);

}  // namespace pnl_db
