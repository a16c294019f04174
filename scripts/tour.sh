# Sourced after lib.sh by the tours: commands are shown with their answers, which have to be the
# expected ones. `brefirctl` is the one that was built.
# shellcheck shell=bash

green='' bold='' plain=''
if [ -t 1 ]; then green=$'\e[32m' bold=$'\e[1m' plain=$'\e[0m'; fi
# shellcheck disable=SC2154 # lib.sh sets it
export PATH="$root/build/release/bin:$PATH"
scratch=$(realpath "$scratch")
export BREFIR_PREFIX=$scratch/panel

heading() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }
prompt() { printf '%s$ %s%s\n' "$green" "${*@Q}" "$plain" | sed "s/'\([A-Za-z0-9_.:\/-]*\)'/\1/g"; }

# ctl STATUS WORD...: shows a command and its answer; any other exit code ends the tour.
ctl() {
  local wanted=$1 status=0
  shift
  prompt brefirctl "$@"
  brefirctl "$@" </dev/null 2>&1 | tee "$scratch/answer" || status=$?
  [ "$status" -eq "$wanted" ] || die "exit code $status instead of $wanted: brefirctl $*"
  [ "$status" -eq 0 ] || printf '(exit code %d, as expected)\n' "$status"
}
# look COMMAND...: something to see below the prefix.
look() {
  prompt "$@"
  (cd "$BREFIR_PREFIX" && "$@")
}
# answered TEXT: the last answer holds it.
answered() { grep -qF -- "$1" "$scratch/answer" || die "the last answer lacks '$1'"; }

# holds EXPRESSION WORD...: what a command answers in JSON, as `rows`, fulfils a Python expression.
holds() {
  local expression=$1
  shift
  { brefirctl -o json "$@" </dev/null 2>/dev/null || true; } |
    python3 -c 'import json, sys
rows = json.load(sys.stdin)
by = {row.get("key", row.get("name")): row for row in rows if isinstance(rows, list)}
sys.exit(not eval(sys.argv[1]))' "$expression" || die "does not hold for 'brefirctl $*': $expression"
}
