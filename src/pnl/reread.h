#pragma once

#include <optional>
#include <string>
#include <utility>

#include "pnl/file.h"

namespace pnl_file {

/// What a file says: read again when its inode, size or time is another than at the last reading.
/// One thread at a time uses it.
template <class Value>
class Reread {
 public:
  explicit Reread(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }

  /// `read()` makes the value of the file's present text.
  template <class Read>
  const Value& Get(const Read& read) {
    // Looked at before the reading: a change in between is taken for a new one the next time.
    const Info now(path_);
    if (!seen_ || !now.SameVersion(*seen_)) {
      value_ = read();
      seen_ = now.Settled() ? std::optional(now) : std::nullopt;
    }
    return value_;
  }

 private:
  std::string path_;
  Value value_{};
  std::optional<Info> seen_;
};

}  // namespace pnl_file
