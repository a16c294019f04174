#pragma once

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "fleet/draft.h"
#include "fleet/journal.h"
#include "fleet/run.h"
#include "support/lab.h"

/// What the fault programs of runs work on: three nodes, the panel's journal, and changes that take
/// all nodes from one text to the next.
namespace faults {

/// The change that gives all nodes this number: a key of a configuration file, a line of an
/// authorized_keys file and a file, which are there for even numbers only, a new directory with a file,
/// a secret file, and a command that can be undone. The nodes have the number 0 at first.
struct RunChange {
  int number = 0;
  bool secret = true;   ///< with the secret file; without it, a committed run can be undone
  bool command = true;  ///< with the command
  bool fails = false;   ///< the last step fails on the last node
};

/// How long a run waits, seconds.
struct RunTimes {
  int timeout;        ///< for a sign of life of a node
  int node_deadline;  ///< for a node in a phase
};

/// Only one process uses it; it may fork others that work on the nodes meanwhile.
class RunSite {
 public:
  static constexpr std::size_t kNodes = 3;

  /// Makes the nodes; their disks have 32 MiB. `database` is the journal's address.
  explicit RunSite(std::string database);

  const support::LabNode& Node(std::size_t i) const { return *nodes_[i]; }
  /// The journal over a new connection.
  std::unique_ptr<fleet::Journal> OpenJournal() const;

  /// A change to the next number.
  RunChange NextChange() { return {.number = ++last_}; }
  /// Plans and makes it.
  fleet::RunReport Make(fleet::Journal& journal, const RunChange& change, const RunTimes& times,
                        const fleet::RunWatch& watch = {}) const;
  fleet::RecoverOptions Recovery(const RunTimes& times, const fleet::RunWatch& watch = {}) const;

  /// "old" if all nodes are as before `change`, "new" if all have it; else what is on them in words.
  /// A command must have been run once where it was run, and nothing of runs may be left there, but
  /// for the numbers that keep late commands out. Call it when no run is unfinished.
  std::string State(const RunChange& change) const;
  /// From now on the nodes are to have this change.
  void Accept(const RunChange& change) {
    present_ = change;
    if (change.secret) secret_ = change.number;
  }
  /// Puts the nodes into the state before all changes, and forgets the journal's runs; for a new
  /// start after something that is not allowed.
  void Reset();

  /// What the journal, the log and the temporary files of this panel have of a secret, in words; "":
  /// nothing.
  std::string SecretsHere() const;

 private:
  std::string StateOf(std::size_t node, const RunChange& change) const;
  void PrepareNode(const support::LabNode& node) const;

  std::string database_;
  std::vector<std::unique_ptr<support::LabNode>> nodes_;
  std::vector<fleet::RunTarget> targets_;
  RunChange present_;
  int secret_ = 0;  ///< number of the change that it is from
  int last_ = 0;
};

/// What runs that have not ended have in these directories of a node, and in what it remembers of runs.
std::string LeftoversIn(const std::filesystem::path& root,
                        const std::vector<std::string>& directories);
/// The states of nodes and their reasons, for people.
std::string Reasons(const fleet::RunReport& report);
/// Whether the node lets root in with the key. The network of this host may take a moment to see that a
/// cable is plugged in again; the node is waited for.
bool LetsIn(const support::LabNode& node, const std::string& key_file);

/// Watches the command lines of all processes of this host, in a process of its own.
class SecretWatch {
 public:
  SecretWatch();
  SecretWatch(const SecretWatch&) = delete;
  SecretWatch& operator=(const SecretWatch&) = delete;
  ~SecretWatch();
  /// Ends it; the command lines with a secret, "" if there was none.
  std::string Stop();

 private:
  pid_t process_;
};

}  // namespace faults
