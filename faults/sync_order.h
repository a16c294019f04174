#pragma once

#include <sys/types.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/faults.h"

namespace faults {

/// Checks whether an operation survives a power cut. A disk may store a rename(2) before the
/// content and attributes of the renamed file, which is then empty. And a rename is only stored for
/// certain when its directory is synced (fsync(2)). Gets each call of an operation before it is
/// carried out.
class SyncOrder {
 public:
  /// The SYS_... numbers of the calls that it needs.
  static const std::vector<int>& Calls();

  void See(const support::Call& call);

  /// Describes what was wrong; call it after the operation.
  std::vector<std::string> Faults() const;
  /// How many moves it has seen this process make.
  int Moves() const { return moves_; }

 private:
  using File = std::pair<dev_t, ino_t>;

  void Change(const support::Call& call, std::uint64_t fd);
  void Sync(const support::Call& call);
  void Move(const std::string& from, const std::string& to);

  std::set<File> changed_;                        ///< and not synced since
  std::set<std::pair<File, std::string>> moved_;  ///< directories, not synced, with the name there
  std::vector<std::string> faults_;
  int moves_ = 0;
};

}  // namespace faults
