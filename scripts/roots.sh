# Sourced by scripts that need an empty Debian. Makes root directories of any release from this
# machine's mirror, and keeps them in build/roots. Needs root and debootstrap.
# shellcheck shell=bash disable=SC2154  # lib.sh sets what is not set here

roots=$root/build/roots
# shellcheck source=/dev/null
host_release=$(. /etc/os-release && echo "$VERSION_CODENAME")

# mirrors RELEASE: the package sources of this machine's apt for that release, with security
# updates, because packages built here may need them.
mirrors() {
  # shellcheck disable=SC2016  # apt's own variables
  apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' \
    'Origin: Debian' | sed -nE "s/^([^ ]+) $host_release(-updates|-security)? /deb \1 $1\2 /p"
}

in_root() { chroot "$1" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
  DEBIAN_FRONTEND=noninteractive "${@:2}"; }

# make_root NAME COMMAND...: makes the root NAME unless it exists. COMMAND gets the directory as its
# last argument. After an interruption the root is made again.
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

# inside WORD...: runs this script again with `--inside WORD...` in a mount namespace of its own,
# which the kernel removes with the last process. Exit code 77 where that is not possible.
inside() {
  [ "$(id -u)" -eq 0 ] || { say "clean roots need root"; exit 77; }
  unshare "${spaces[@]}" true || { say "namespaces are refused here"; exit 77; }
  TMPDIR=$scratch run setpriv --pdeathsig KILL unshare "${spaces[@]}" --kill-child --mount-proc \
    "$root/scripts/$myself" --inside "$@"
}

# In a plain chroot `/` is not a mount and cannot be made private; this is harmless when nothing is
# shared.
private_mounts() {
  mount --make-rprivate / 2>/dev/null || ! grep -q ' shared:' /proc/self/mountinfo ||
    die "mounts of this machine are shared and cannot be made private"
}
