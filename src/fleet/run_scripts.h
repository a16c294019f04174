#pragma once

/// The scripts of a run on a host, for pnl_host::PortableCommand; for the sources of this directory
/// only.
namespace fleet::scripts {

/// What the others begin with; kGuardState follows.
extern const char* const kWords;

/// Looks at paths, parameters, users, groups and packages; after kPackages and kPackagePlans. Its arguments: nonce, largest size of content to
/// print, the same for texts. Its input: a line for each question, "KIND WORD".
extern const char* const kLook;

/// Makes, undoes or ends the steps of a run, after kGuard. Its arguments: nonce; make, undo, end, salvage, claim (the
/// guard's token) or guard (to be the guard); the run's name;
/// epoch; seconds to wait for the lock; "take" to end the command that holds it then, else "-"; how
/// many contents follow; "fence" to keep the epoch for commands that may still come, else "-";
/// the machine, "-" for any; the names of runs that may have left copies, "*" for any; "committed" if
/// commands count as run, else "-"; seconds that a command may take;
/// how many steps were made by an earlier one; seconds of the guard for the others, "-" for none; of a
/// guard, the first of these steps, and the hundredths of the uptime at which it goes off ("boot": now). Its
/// input: a line for each step, a line ".", and the contents one after the other. `text` has the script itself.
extern const char* const kWork;

}  // namespace fleet::scripts
