#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "parser/token.h"
#include "pnl/export.h"
#include "pnl/reread.h"

/// The text of a configuration file at one moment, cut into words. Never changes, so that threads
/// may share it.
class PNL_API ConfText {
 public:
  ConfText(std::string content, const pnl_token::Params& rules)
      : text(std::move(content)), lines(pnl_token::Parse(text, rules)) {}
  ConfText(const ConfText&) = delete;  // `lines` points into `text`
  ConfText& operator=(const ConfText&) = delete;

  /// Where a view into `text` begins.
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

  /// The present text.
  ConfTextPtr Current();

  /// Under the file's lock (pnl_file::Lock: it excludes other threads and processes) reads the
  /// file, and replaces it by what `change` makes of its text; a text that stays the same is not
  /// written. Returns the new text. What `change` throws leaves the file as it was. Errors: "lock"
  /// when the lock is not had within 60 seconds.
  ConfTextPtr Edit(const std::function<std::string(const ConfTextPtr&)>& change);

 private:
  ConfTextPtr Load() const;

  std::mutex mutex_;                    // guards what the next says
  pnl_file::Reread<ConfTextPtr> text_;  // its path never changes
  const pnl_token::Params rules_;
};
