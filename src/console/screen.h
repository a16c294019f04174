#pragma once

#include <unistd.h>

#include <string>
#include <string_view>

#include "pnl/file.h"
#include "pnl/utf8.h"

namespace console {

/// Shows the output of remote work as it comes; on a terminal it is made printable. When the output
/// cannot be written (closed pipe, full disk), the remote work goes on.
class Screen {
 public:
  explicit Screen(int fd) : fd_(fd) {}

  void Show(std::string_view data) {
    if (failed_) return;
    try {
      pnl_file::WriteAll(fd_, terminal_ ? utf8::Printable(data, "\n\t") : std::string(data),
                         "output");
    } catch (const pnl_err::Error&) {
      failed_ = true;
    }
  }

 private:
  const int fd_;
  const bool terminal_ = isatty(fd_) != 0;
  bool failed_ = false;
};

}  // namespace console
