# Sourced by the scripts beside it: the way home, a scratch directory, children that never outlive
# their script, builds. Sets `root` and `scratch`; leaves the working directory at the root.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root" || exit
# Scripts that write much say `in_memory=1` first: theirs is there, unless TMPDIR names a place.
if [ -n "${in_memory-}" ] && [ -w /dev/shm ] && [ "$(stat -f -c %T /dev/shm)" = tmpfs ]; then
  TMPDIR=${TMPDIR:-/dev/shm}
fi
scratch=$(mktemp -d "${TMPDIR:-/tmp}/brefir.XXXXXX")
# shellcheck source-path=SCRIPTDIR source=../lab/lib.sh
source "$root/lab/lib.sh"

# What two builds compile alike, like the release and its packages, the compiler cache takes for the
# same, although their directories have other names.
export CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1

# configure PRESET DIR [CMAKE-OPTION...]: says nothing unless it fails.
configure() {
  run cmake --preset "$1" -B "$2" "${@:3}" >"$scratch/configure.log" 2>&1 && return
  cat "$scratch/configure.log" >&2
  die "the build cannot be configured"
}

# compile DIR [CMAKE-OPTION...]
compile() { run cmake --build "$@" || die "the build failed"; }
