#pragma once

#include <string>

#include "fleet/export.h"
#include "pnl/host.h"

namespace fleet {

/// Changes one file of a host, and can restore it.
///
///     fleet::FileChange motd(host, "/etc/motd");
///     motd.Make("Down for an hour\n");
///     ...
///     motd.PutBack();
///
/// The file is replaced with pnl_host::Host::Replace: no reader ever sees half of it, and a change
/// by somebody else is not overwritten. Attributes and errors are as described there. The object
/// keeps both texts in memory, at most pnl_host::Host::kMaxText bytes each. Use it and the host's
/// session from one thread at a time.
class FLEET_API FileChange {
 public:
  /// Reads the file. Throws "read" when something other than a regular file is there.
  FileChange(pnl_host::Host host, std::string path);

  const std::string& Path() const { return path_; }
  /// The original text; null when there was no file.
  const pnl_host::Content& Before() const { return before_; }

  /// Replaces the text. May be called again. Throws "conflict" when somebody else has changed the
  /// file since the constructor or the last call.
  void Make(const std::string& after);
  /// Restores the text of Before, or removes the file when there was none. Does nothing when no
  /// Make succeeded. Throws "conflict" when somebody else has changed the file since; it then stays
  /// as it is.
  void PutBack();

 private:
  pnl_host::Host host_;
  std::string path_;
  pnl_host::Content before_;
  pnl_host::Content now_;
};

}  // namespace fleet
