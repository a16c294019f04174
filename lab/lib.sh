# Sourced by scripts that start other programs. These never outlive their script, however it ends.
# The directory `scratch`, if set, is removed too.
# shellcheck shell=bash

scratch=${scratch-}
myself=${0##*/} # in messages
group=
guest=

say() { printf '%s: %s\n' "$myself" "$*" >&2; }
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
  [ -z "$guest" ] || end HUP "$guest"
  [ -z "$group" ] || end TERM "-$group"
  cleanup
  [ -z "$scratch" ] || rm -rf --one-file-system "$scratch"
  exit "$status"
}
trap finish EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

# end SIGNAL PID: sends SIGNAL to a process, or to a group when PID is negative, and SIGKILL later.
# The process has time to give its own children 5 s.
end() {
  kill "-$1" -- "$2" 2>/dev/null || return 0
  for _ in {1..80}; do
    kill -0 -- "$2" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -KILL -- "$2" 2>/dev/null || true
}

# Runs a command in a process group of its own: an interrupt ends the whole group, and this shell
# reacts to a signal at once, not after the command.
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

# The same for a command that uses the terminal and therefore stays in this process group. It cleans
# up by itself when its terminal hangs up. Background jobs of a shell ignore interrupts.
run_on_terminal() {
  local status=0
  env --default-signal=INT,QUIT "$@" <&0 &
  guest=$!
  wait "$guest" || status=$?
  guest=
  return "$status"
}
