#pragma once

#include <memory>
#include <string>
#include <vector>

#include "fleet/draft.h"
#include "fleet/journal.h"
#include "fleet/run.h"
#include "support/lab.h"

namespace faults {

/// What takes a node to a number: a file, a kernel parameter, and a key that lets root in. Each number has
/// another key than the one before and the one after it.
struct KeyChange {
  int number = 0;
  bool locks_out = false;  ///< the panel's own key is gone then
};

/// A node whose keys are changed under a guard. It has the number 0 at first. The journal and the keys are in
/// the working directory.
class KeySite {
 public:
  static constexpr int kGuard = 3;    ///< seconds
  static constexpr int kTimeout = 4;  ///< seconds that the node may be without a sign of life

  explicit KeySite(bool systemd);

  const support::LabNode& Node() const { return node_; }
  /// A process that was forked must not use the connection of another.
  static std::unique_ptr<fleet::Journal> OpenJournal();

  /// To the next number.
  KeyChange NextChange(bool locks_out = false) const { return {present_.number + 1, locks_out}; }
  /// Plans and makes it.
  fleet::RunReport Make(const KeyChange& change, const fleet::RunWatch& watch) const;
  /// From now on it is to have this change.
  void Accept(const KeyChange& change) { present_ = change; }

  /// "old", "new", or what is there in words.
  std::string State(const KeyChange& change) const;
  /// The same for the keys alone: one of them must work.
  std::string Door(const KeyChange& change) const;
  /// What runs have left there; "" if nothing.
  std::string Leftovers() const;

 private:
  std::vector<fleet::Edit> EditsOf(const KeyChange& change) const;
  std::string Found() const;

  support::LabNode node_;
  KeyChange present_;
};

}  // namespace faults
