# Sourced by the parts of the tour: commands are shown with their answers, which have to be the
# expected ones. They work in the directory $DEMO_DIR, whose www a server offers as $DEMO_URL.
# shellcheck shell=bash

demo=$(cd "${BASH_SOURCE[0]%/*}" && pwd -P)
lab=${demo%/*}/lab
cd "${DEMO_DIR:?brefirctl demo runs this}" || exit

green='' bold='' plain=''
if [ -t 1 ] && [ -z "${NO_COLOR-}" ]; then green=$'\e[32m' bold=$'\e[1m' plain=$'\e[0m'; fi

die() {
  printf 'brefirctl demo: %s\n' "$*" >&2
  exit 1
}

# heading TITLE [SENTENCE...]: a new section, and what to look for in it.
heading() {
  printf '\n%s=== %s%s\n' "$bold" "$1" "$plain"
  [ $# -eq 1 ] || fold -s -w 80 <<<"${*:2}" | sed 's/ *$//'
}
prompt() { printf '%s$ %s%s\n' "$green" "${*@Q}" "$plain" | sed "s/'\([A-Za-z0-9_.:=\/-]*\)'/\1/g"; }

# ctl STATUS WORD...: shows a command and its answer; any other exit code ends the tour.
ctl() {
  local wanted=$1 status=0
  shift
  prompt brefirctl "$@"
  brefirctl "$@" </dev/null 2>&1 | tee answer || status=$?
  [ "$status" -eq "$wanted" ] || die "exit code $status instead of $wanted: brefirctl $*"
  [ "$status" -eq 0 ] || printf '(exit code %d, as expected)\n' "$status"
}
# look COMMAND...: something to see below the panel's directory.
look() {
  prompt "$@"
  (cd "$BREFIR_PREFIX" && "$@")
}
# with_lab SCRIPT WORD...: shows and runs one of the lab's scripts.
with_lab() {
  prompt "lab/$1" "${@:2}"
  "$lab/$1" "${@:2}"
}
# answered TEXT: the last answer holds it.
answered() { grep -qF -- "$1" answer || die "the last answer lacks '$1'"; }

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

# open_shop: six nodes of two kinds of systems in the group shop, which several parts use.
open_shop() {
  local n os address
  [ -d "$BREFIR_PREFIX" ] || brefirctl prefix init "$BREFIR_PREFIX" >answer
  ! grep -qF '[shop]' "$BREFIR_PREFIX/etc/nodes" || return 0
  echo "[shop] key=$LAB_KEY" >>"$BREFIR_PREFIX/etc/nodes"
  for n in {1..6}; do
    os=debian12
    ((n % 2)) || os=centos7
    address=$("$lab/node" start "shop-$n" --os "$os")
    brefirctl node add "shop-$n" "host=$address" "os=$os" --group shop >answer
  done
}

# show_sums [OLD]: what `sums` of this part says of the nodes; ends the tour if OLD is another.
show_sums() {
  prompt sums
  sums | tee sums
  [ $# -eq 0 ] || [ "$(cat sums)" = "$1" ] || die "a node is not as before"
}

# offer_packages: the panel's servers have package repositories and their keys.
offer_packages() {
  [ ! -d www/base ] || return 0
  "$lab/make-package-repos" www
  cp -a www/panel/. /
  grep -q '^download_server' "$BREFIR_PREFIX/etc/brefir.conf" ||
    printf '%s = %s\n' download_server "$DEMO_URL" signing_key_server "$DEMO_URL" \
      >>"$BREFIR_PREFIX/etc/brefir.conf"
}
