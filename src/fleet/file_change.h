#pragma once

#include <string>

#include "fleet/export.h"
#include "pnl/host.h"

namespace fleet {

/// One file of a host, changed as a whole and put back.
///
///     fleet::FileChange motd(host, "/etc/motd");
///     motd.Make("Down for an hour\n");
///     ...
///     motd.PutBack();
///
/// Nobody ever sees half of the file, and nothing that somebody else has written meanwhile is
/// overwritten: pnl_host::Host::Replace, which says what is kept and what is thrown. The object
/// keeps both texts in memory, at most pnl_host::Host::kMaxText bytes each. One thread at a time
/// uses it and the host's session.
class FLEET_API FileChange {
 public:
  /// Reads the file. Throws "read" when there is something that is no file.
  FileChange(pnl_host::Host host, std::string path);

  const std::string& Path() const { return path_; }
  /// The text that it had; null when there was no file.
  const pnl_host::Content& Before() const { return before_; }

  /// Gives it that text. Throws "conflict" when it is no longer as this object knows it; called
  /// again, it goes on from the text of the last call.
  void Make(const std::string& after);
  /// Gives it the text of Before again, or removes it when there was none. Nothing when no Make
  /// went well. Throws "conflict" when somebody has changed it since; it stays as it is then.
  void PutBack();

 private:
  pnl_host::Host host_;
  std::string path_;
  pnl_host::Content before_;
  pnl_host::Content now_;
};

}  // namespace fleet
