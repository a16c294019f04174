# Sourced by the scripts beside it: the way home, a scratch directory, children that never outlive
# their script, builds. Sets `root` and `scratch`; leaves the working directory at the root.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root" || exit
scratch=$(mktemp -d "${TMPDIR:-/tmp}/brefir.XXXXXX")
group=

say() { printf '%s: %s\n' "${0##*/}" "$*" >&2; }
die() {
  say "$@"
  exit 1
}

# Scripts with more to clean up redefine this; it runs once, whatever ends the script.
cleanup() { :; }

finish() {
  local status=$?
  trap '' INT TERM HUP
  trap - EXIT
  [ -z "$group" ] || end_group "$group"
  cleanup
  rm -rf --one-file-system "$scratch"
  exit "$status"
}
trap finish EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

# Ends a process group, politely first.
end_group() {
  kill -TERM -- "-$1" 2>/dev/null || return 0
  for _ in {1..50}; do
    kill -0 -- "-$1" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -KILL -- "-$1" 2>/dev/null || true
}

# Runs a command in a process group of its own: an interrupt ends all of it, and this shell answers
# a signal at once instead of after the command.
run() {
  local status=0
  set -m
  "$@" </dev/null &
  group=$!
  set +m
  wait "$group" || status=$?
  group=
  return "$status"
}

# configure PRESET DIR [CMAKE-OPTION...]: says nothing unless it fails.
configure() {
  run cmake --preset "$1" -B "$2" "${@:3}" >"$scratch/configure.log" 2>&1 && return
  cat "$scratch/configure.log" >&2
  die "the build cannot be configured"
}

# compile DIR [CMAKE-OPTION...]
compile() { run cmake --build "$@" || die "the build failed"; }
