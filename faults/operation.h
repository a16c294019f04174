#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

/// Operations that change files of this host, and the states that are allowed after a system call
/// failed, after the process was killed at it, or after a power cut.
namespace faults {

/// Whose calls fail.
enum class Callers {
  kAll,     ///< those of this process and of the programs that it runs; kills hit this one only
  kOwn,     ///< those of this process
  kOthers,  ///< those of the programs that `work` runs, which are killed, too
};

/// `work` changes the state "old" to "new": it throws and leaves "old", or returns and leaves
/// "new". After an error no temporary file stays, except the one that the error names; every
/// descriptor is closed; and a second `work` succeeds.
struct Operation {
  std::string name;
  std::function<void()> prepare;  ///< makes the old files, below the empty working directory
  std::function<void()> work;
  std::function<std::string()> state;  ///< "old", "new" or `torn`; anything else is a violation

  /// Another state that an error or a kill may leave, for an operation of several steps.
  std::string torn = {};
  /// Part of the mode that no file it makes may exceed; umask is 0.
  mode_t widest = 0640;
  Callers callers = Callers::kAll;
  /// It cannot report a failure: it may return and leave "old" or `torn`.
  bool silent = false;
  /// It may fail in a last step that the next call repeats.
  bool late = false;
  /// It only logs the temporary file that a failed rename or removal has left.
  bool logs = false;
  /// What a failure has made may stay.
  bool leaves = false;
  /// Done again, it removes what was left.
  bool cleans = false;
  /// Only every n-th point is tried, to save time: the others are similar.
  int every = 1;
};

/// One that changes the text of a file; where `before` is "" there is none.
Operation Edit(const std::string& name, const std::string& path, const std::string& before,
               const std::string& after, const std::function<void()>& work);

/// Tests the operations (all, or those whose names contain argument 1) at every point, or at every
/// n-th with BREFIR_FAULT_STEP=n in the environment. Returns the exit code of the program: 0 when
/// all states are allowed, 77 when system calls cannot be made to fail.
int Run(int argc, char** argv, const std::vector<Operation>& operations);

// --- For the operations

/// The whole file, read without the code under test; "" when it is missing.
std::string Get(const std::string& path);
/// Makes the file and its directories. An existing file is removed first, because it may be open.
void Put(const std::string& path, const std::string& text, mode_t mode = 0640);
/// "old" or "new" when the text is one of them; else the text, for the report.
std::string OldOrNew(const std::string& text, const std::string& old, const std::string& changed);
/// What a shell command of this host prints; a failure throws.
std::string Shell(const std::string& command);

}  // namespace faults
