# Sourced by scripts that need an empty Debian: roots of any release, kept below build/roots for the
# next time, from the mirror that this machine uses. Needs root and debootstrap.
# shellcheck shell=bash disable=SC2154  # lib.sh sets what is not set here

roots=$root/build/roots
# shellcheck source=/dev/null
host_release=$(. /etc/os-release && echo "$VERSION_CODENAME")

# mirrors RELEASE: as apt on this machine reaches the Debian archive; with updates for security, as
# packages that are built here may need those.
mirrors() {
  # shellcheck disable=SC2016  # apt's own variables
  apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' \
    'Origin: Debian' | sed -nE "s/^([^ ]+) $host_release(-updates|-security)? /deb \1 $1\2 /p"
}

in_root() { chroot "$1" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
  DEBIAN_FRONTEND=noninteractive "${@:2}"; }

# make_root NAME COMMAND...: a root that is kept; COMMAND makes it in the directory that it gets as
# its last word. An interrupted one is made anew.
make_root() {
  [ ! -d "$roots/$1" ] || return 0
  say "making the root '$1'"
  rm -rf --one-file-system "$roots/$1.part"
  mkdir -p "$roots"
  "${@:2}" "$roots/$1.part" >"$scratch/root.log" 2>&1 || {
    tail -n 30 "$scratch/root.log" >&2
    die "the root '$1' was not made"
  }
  mv "$roots/$1.part" "$roots/$1"
}

# minimal RELEASE DIR
minimal() {
  local mirror
  mirror=$(mirrors "$1" | awk -v release="$1" '$3 == release && $4 == "main" { print $2; exit }')
  debootstrap --variant=minbase "$1" "$2" "${mirror:?no mirror of $1}" &&
    mirrors "$1" >"$2/etc/apt/sources.list" &&
    apt-config dump | sed -nE '/^Acquire::(https?::|Check-|Retries)/p' >"$2/etc/apt/apt.conf.d/99host" &&
    cp /etc/resolv.conf "$2/etc/resolv.conf"
}

spaces=(--mount --pid --fork --propagation unchanged)

# inside WORD...: this script again, with `--inside WORD...`, in mounts of its own, which the kernel
# takes down with the last process in them. Exit code 77 where that cannot be.
inside() {
  [ "$(id -u)" -eq 0 ] || { say "clean roots need root"; exit 77; }
  unshare "${spaces[@]}" true || { say "namespaces are refused here"; exit 77; }
  TMPDIR=$scratch run setpriv --pdeathsig KILL unshare "${spaces[@]}" --kill-child --mount-proc \
    "$root/scripts/$myself" --inside "$@"
}

# In a plain chroot `/` is no mount and cannot be made private; no harm where nothing is shared.
private_mounts() {
  mount --make-rprivate / 2>/dev/null || ! grep -q ' shared:' /proc/self/mountinfo ||
    die "mounts of this machine are shared and cannot be made private"
}
