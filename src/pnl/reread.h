#pragma once

#include <optional>
#include <string>
#include <utility>

#include "pnl/file.h"

namespace pnl_file {

/// A value that is read from a file, and read again when the inode, size or time of the file has
/// changed. Use it from one thread at a time.
template <class Value>
class Reread {
 public:
  explicit Reread(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }

  /// `read()` makes the value from the current text of the file.
  template <class Read>
  const Value& Get(const Read& read) {
    // Before the reading: a change during it is then noticed the next time.
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
