#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pnl/file.h"
#include "pnldb/connection.h"

namespace pnl_db {

/// Rows that were read before the caller needs them. First all are added, then they are read in the
/// same order. When they are many, they go to a file without a name in /var/tmp.
class RowBuffer {
 public:
  explicit RowBuffer(std::string sql) : sql_(std::move(sql)) {}

  /// Adds the current row of `rows`. Never throws: when a row cannot be stored, Next throws the
  /// error at its place.
  void Add(const Rows& rows) noexcept;

  bool Next();  ///< moves to the next row; the first call to the first row
  std::string_view Text(std::size_t column) const { return row_[column]; }

 private:
  void Append(const Rows& rows);
  void Copy(char* to, std::size_t size);
  void Refill();

  std::string sql_;  // for errors
  std::size_t left_ = 0;
  std::string memory_;  // the last rows
  pnl_file::Fd file_;   // the rows before these
  bool reading_ = false;
  std::string block_;  // of the file, while reading
  std::size_t position_ = 0;
  std::vector<std::string> row_;
  std::exception_ptr failure_;
};

/// The rows of a statement that runs to its end in the constructor.
class BufferedRows : public Rows {
 public:
  BufferedRows(const std::string& sql, Rows& rows);

  bool Next() override { return buffer_.Next(); }
  std::string_view Text(std::size_t column) const override { return buffer_.Text(column); }
  std::int64_t Number(std::size_t column) const override;

 private:
  RowBuffer buffer_;
};

}  // namespace pnl_db
