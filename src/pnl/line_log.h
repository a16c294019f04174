#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "pnl/log.h"
#include "pnl/str.h"

namespace pnl_log {

/// What a command says on its standard error, on its way to the log: whole lines, over-long ones in
/// pieces, and no more than the first kMost bytes, so that no node fills this host's disk. For the
/// sources of this directory only.
class LineLog {
 public:
  static constexpr int kLevel = 4;

  /// `name` tells the lines of one command from those of others; it may be set later.
  explicit LineLog(Module& module, std::string name = "")
      : module_(module), name_(std::move(name)) {}
  void SetName(std::string name) { name_ = std::move(name); }

  void Add(std::string_view data) {
    if (!module_.Enabled(kLevel) || added_ > kMost) return;
    added_ += data.size();
    if (added_ > kMost) data = "... and more, which is left out\n";
    while (!data.empty()) {
      const std::size_t end = data.find('\n');
      const std::size_t room = kLongestLine - line_.size();
      const std::size_t taken = std::min({end, room, data.size()});
      line_ += data.substr(0, taken);
      data.remove_prefix(taken == end ? taken + 1 : taken);
      if (taken == end || taken == room) Flush();
    }
  }

  /// Writes a last line that has no line end.
  void Flush() {
    const std::string line = str::WithoutCredentials(std::exchange(line_, {}));
    if (!line.empty()) PNL_LOG(module_, kLevel, "[%s] %s", name_.c_str(), line.c_str());
  }

 private:
  static constexpr std::size_t kLongestLine = 4096;
  static constexpr std::size_t kMost = std::size_t{1} << 20;

  Module& module_;
  std::string name_;
  std::string line_;
  std::size_t added_ = 0;  // bytes
};

}  // namespace pnl_log
