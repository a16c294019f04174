#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// The analysis of a statement before it is sent to a database.
namespace pnl_db {

enum class Syntax { kSqlite, kPostgres };

/// The words, quoted parts and signs of a statement, as views into it. White space and comments are
/// left out.
std::vector<std::string_view> Tokens(std::string_view sql, Syntax syntax);

/// Whether the statement may change rows, judged by its words; changes made by SQL functions are
/// not noticed.
bool MayChange(std::string_view sql);

/// For PostgreSQL: `sql` with "$1", "$2", ... in place of each "?".
std::string Numbered(std::string_view sql);

/// A statement for SQLite.
struct TypedSql {
  std::string sql;
  std::size_t arguments;  ///< the number of "?"
  bool doubled;           ///< bind every argument twice: as text, and as a number if it is one
};

/// PostgreSQL gives an argument the type of the value that it is compared with. SQLite does so only
/// beside a column; otherwise a number is always less than a text. Therefore the other value's type
/// selects the form of the argument: "sum(value) > ?" becomes "sum(value) > (case
/// typeof(sum(value)) when 'text' then ?1 else ?2 end)".
TypedSql Typed(std::string_view sql);

}  // namespace pnl_db
