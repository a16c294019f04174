#pragma once

/// The scripts of a run on a host, for pnl_host::PortableCommand; for the sources of this directory
/// only.
namespace fleet::scripts {

/// What the others begin with.
extern const char* const kWords;

/// Looks at paths, parameters, users, groups and packages; after kPackages and kPackagePlans. Its arguments: nonce, largest size of content to
/// print, the same for texts. Its input: a line for each question, "KIND WORD".
extern const char* const kLook;

/// Makes, undoes or ends the steps of a run. Its arguments: nonce; make, undo, end or salvage; the run's name;
/// epoch; seconds to wait for the lock; "take" to end the command that holds it then, else "-"; how
/// many contents follow; "fence" to keep the epoch for commands that may still come, else "-";
/// the machine, "-" for any; the names of runs that may have left copies, "*" for any; "committed" if
/// commands count as run, else "-"; seconds that a command may take;
/// how many steps were made by an earlier one. Its
/// input: a line for each step, a line ".", and the contents one after the other.
extern const char* const kWork;

}  // namespace fleet::scripts
