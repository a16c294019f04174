# Sourced by scripts that start others: what they start never outlives them, whatever ends them. The
# directory `scratch`, if they set it, goes too.
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

# end SIGNAL PID: ends a process, or a group when PID is negative, politely first. Those below it
# may take 5 s to do the same.
end() {
  kill "-$1" -- "$2" 2>/dev/null || return 0
  for _ in {1..80}; do
    kill -0 -- "$2" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -KILL -- "$2" 2>/dev/null || true
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

# The same for a command that uses the terminal, and therefore stays in this process group; it
# cleans up by itself when its terminal hangs up. A shell's background jobs ignore interrupts.
run_on_terminal() {
  local status=0
  env --default-signal=INT,QUIT "$@" <&0 &
  guest=$!
  wait "$guest" || status=$?
  guest=
  return "$status"
}
