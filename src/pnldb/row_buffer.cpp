#include "pnldb/row_buffer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "pnl/str.h"

namespace pnl_db {

namespace {

constexpr std::size_t kMemory = 1 << 20;  // bytes
constexpr std::size_t kBlock = 1 << 16;
constexpr const char* kFolder = "/var/tmp";  // on a disk; /tmp may be memory

}  // namespace

void RowBuffer::Add(const Rows& rows) noexcept {
  if (failure_) return;
  try {
    Append(rows);
    ++left_;
  } catch (...) {
    failure_ = std::current_exception();
  }
}

void RowBuffer::Append(const Rows& rows) {
  row_.resize(rows.Names().size());
  if (memory_.size() >= kMemory) {
    if (file_.Get() < 0) file_ = pnl_file::Open(kFolder, O_TMPFILE | O_RDWR, 0600);
    pnl_file::WriteAll(file_.Get(), memory_, kFolder);
    memory_.clear();
  }
  std::string encoded;
  for (std::size_t i = 0; i < row_.size(); ++i) {
    const std::string_view text = rows.Text(i);
    const std::size_t size = text.size();
    encoded.append(reinterpret_cast<const char*>(&size), sizeof size).append(text);
  }
  memory_ += encoded;
}

bool RowBuffer::Next() {
  try {
    if (left_ == 0 && failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
    if (left_ == 0) return false;
    --left_;
    for (std::string& text : row_) {
      std::size_t size = 0;
      Copy(reinterpret_cast<char*>(&size), sizeof size);
      text.resize(size);
      Copy(text.data(), size);
    }
    return true;
  } catch (const std::exception& error) {
    left_ = 0;
    throw DbError("query", sql_, std::string("rows cannot be kept: ") + error.what(), "58030");
  }
}

void RowBuffer::Copy(char* to, std::size_t size) {
  while (size > 0) {
    if (position_ == block_.size()) Refill();
    const std::size_t part = std::min(size, block_.size() - position_);
    to = std::copy_n(block_.data() + position_, part, to);
    position_ += part;
    size -= part;
  }
}

/// Reads the next bytes of the file, then those in memory.
void RowBuffer::Refill() {
  position_ = 0;
  if (file_.Get() >= 0) {
    if (!std::exchange(reading_, true)) lseek(file_.Get(), 0, SEEK_SET);
    block_.resize(kBlock);
    block_.resize(pnl_file::ReadSome(file_.Get(), block_.data(), kBlock, kFolder));
    if (!block_.empty()) return;
    file_ = {};
  }
  block_ = std::exchange(memory_, {});
  if (block_.empty()) throw pnl_err::Error("file", "read", kFolder);
}

BufferedRows::BufferedRows(const std::string& sql, Rows& rows) : buffer_(sql) {
  names_ = rows.Names();
  while (rows.Next()) buffer_.Add(rows);
}

std::int64_t BufferedRows::Number(std::size_t column) const {
  return str::Int64(Text(column));
}

}  // namespace pnl_db
