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

/// Rows that had to be read before they are wanted, in their order; first all are added, then they
/// are walked. Beyond some memory they go to a file without a name in /var/tmp.
class RowBuffer {
 public:
  explicit RowBuffer(std::string sql) : sql_(std::move(sql)) {}

  /// Never throws: what keeps this and later rows from being kept is told when it is their turn.
  /// The present row of `rows`.
  void Add(const Rows& rows) noexcept;

  bool Next();  ///< steps to the next row, at first to the first
  std::string_view Text(std::size_t column) const { return row_[column]; }

 private:
  void Append(const Rows& rows);
  void Copy(char* to, std::size_t size);
  void Refill();

  std::string sql_;  // for errors
  std::size_t left_ = 0;
  std::string memory_;  // the last rows
  pnl_file::Fd file_;   // those before
  bool reading_ = false;
  std::string block_;  // of what is being read
  std::size_t position_ = 0;
  std::vector<std::string> row_;
  std::exception_ptr failure_;
};

/// The rows of a statement that is carried out to its end at once.
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
