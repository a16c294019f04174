#pragma once

/// The parts of the scripts of a run that deal with its guard; for the sources of this directory only.
///
/// The guard of a run is a process on the host, armed before the steps are made that may lock the panel
/// out. It has a directory of its own beside the lock, where the name of a file tells how it stands:
/// - armed: its token, with the number of its process
/// - claimed: somebody came in, and has taken the token
/// - fired: its time was over, and it has taken the token
/// - restored: it has put things back
///
/// The token changes its name by one rename(2), which succeeds once: whoever did it has decided. In
/// the directory of the run, "guard" says armed, fired or restored, too: what is in /run is lost with
/// a reboot.
namespace fleet::scripts {

/// `guarding` sets gs: armed, lost (no process has the token), fired, restored, or "" without a guard.
/// It needs run, d (the directory of the run) and gd (that of the guard).
extern const char* const kGuardState;

/// `ready`, `renew`, `arm`, `claim`, `unguard`, `dismiss`, `guardian` and `put_back`, for kWork.
extern const char* const kGuard;

}  // namespace fleet::scripts
