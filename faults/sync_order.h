#pragma once

#include <sys/types.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/faults.h"

namespace faults {

/// Whether an operation would outlast a power cut. A disk may take a rename(2) before the text and
/// the attributes of the file that it moves, which is then empty; and a move is only there for good
/// when its directory is synced (fsync(2)). Sees each call of an operation before it is carried
/// out.
class SyncOrder {
 public:
  /// SYS_... of those that it has to see.
  static const std::vector<int>& Calls();

  void See(const support::Call& call);

  /// What was wrong; call it when the operation has returned.
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
