#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "parser/token.h"
#include "pnl/export.h"
#include "pnl/reread.h"

/// The text of a configuration file at one moment, divided into words. It never changes, so that
/// threads may share it.
class PNL_API ConfText {
 public:
  ConfText(std::string content, const pnl_token::Params& rules)
      : text(std::move(content)), lines(pnl_token::Parse(text, rules)) {}
  ConfText(const ConfText&) = delete;  // `lines` points into `text`
  ConfText& operator=(const ConfText&) = delete;

  /// The position in `text` at which the view `part` begins; bytes.
  std::size_t Offset(std::string_view part) const {
    return static_cast<std::size_t>(part.data() - text.data());
  }

  const std::string text;
  const std::vector<pnl_token::Line> lines;
};

using ConfTextPtr = std::shared_ptr<const ConfText>;

/// A configuration file with its parsed text. A missing file reads as an empty one; other failures
/// are pnl_err::Error of type "file". Thread-safe.
class PNL_API ConfFile {
 public:
  ConfFile(std::string path, const pnl_token::Params& rules);

  const std::string& path() const { return text_.path(); }
  const pnl_token::Params& rules() const { return rules_; }

  /// The current text.
  ConfTextPtr Current();

  /// Reads the file, replaces it with the result of `change`, and returns the new text. The file's
  /// lock (pnl_file::Lock) keeps other threads and processes out meanwhile. A text that stays the
  /// same is not written. When `change` throws, the file stays as it was. Errors: "file"; "lock"
  /// when the lock is not free within 60 seconds.
  ConfTextPtr Edit(const std::function<std::string(const ConfTextPtr&)>& change);

 private:
  ConfTextPtr Load() const;

  std::mutex mutex_;                    // guards the value of text_
  pnl_file::Reread<ConfTextPtr> text_;  // its path never changes
  const pnl_token::Params rules_;
};
