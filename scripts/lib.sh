# Sourced by the scripts in this directory. Sets `root` (the top of the tree) and `scratch` (a
# temporary directory), and changes to `root`. Has functions to build. Child processes never outlive
# their script.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root" || exit
# Scripts that write much set `in_memory=1` first: their scratch directory is then in memory, unless
# TMPDIR is set.
if [ -n "${in_memory-}" ] && [ -w /dev/shm ] && [ "$(stat -f -c %T /dev/shm)" = tmpfs ]; then
  TMPDIR=${TMPDIR:-/dev/shm}
fi
scratch=$(mktemp -d "${TMPDIR:-/tmp}/brefir.XXXXXX")
# shellcheck source-path=SCRIPTDIR source=../lab/lib.sh
source "$root/lab/lib.sh"

# Lets the compiler cache share results between builds in different directories, such as the release
# and its packages.
export CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1

# configure PRESET DIR [CMAKE-OPTION...]: prints nothing unless it fails.
configure() {
  run cmake --preset "$1" -B "$2" "${@:3}" >"$scratch/configure.log" 2>&1 && return
  cat "$scratch/configure.log" >&2
  die "the build cannot be configured"
}

# compile DIR [CMAKE-OPTION...]
compile() { run cmake --build "$@" || die "the build failed"; }
