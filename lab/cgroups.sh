# Sourced by scripts that have set `lab`, the directory of the lab's state. systemd divides its processes
# into cgroups(7). Each node with systemd therefore has a cgroup of its own, inside that of the lab. When
# namespaces end, their processes do too, but the empty cgroups stay until somebody removes them.
# shellcheck shell=bash disable=SC2154

# make_cgroups: chooses the lab's cgroup when the first node needs one, and keeps its name in a file. It
# also removes those of labs that were killed. In those of running labs even empty parts must stay: their
# systemd is about to use these.
make_cgroups() (
  local all=$lab/cgroups base dir
  flock 9
  [ ! -e "$lab/cgroup" ] || return 0
  mkdir -p "$all" && mount -t cgroup2 cgroup2 "$all" || return
  base=$(sed -n 's|^0::/*|/|p' /proc/self/cgroup)
  base=${base%/}
  for dir in "$all$base"/lab-*; do
    ! grep -qs '^populated 0' "$dir/cgroup.events" || remove_cgroup "$dir"
  done
  # No two namespaces have the same inode.
  echo "$base/lab-$(stat -L -c %i /proc/self/ns/mnt)" >"$lab/cgroup"
) 9>"$lab/cgroup.lock"

# The directory of the lab's cgroup.
lab_cgroup() { echo "$lab/cgroups$(cat "$lab/cgroup")"; }

remove_cgroup() { find "$1" -depth -type d -exec rmdir {} + 2>/dev/null || true; }

# end_cgroups: kills all processes of the lab's cgroup and removes it.
end_cgroups() {
  local dir
  [ -e "$lab/cgroup" ] || return 0
  dir=$(lab_cgroup)
  [ -e "$dir/cgroup.kill" ] || return 0
  echo 1 >"$dir/cgroup.kill"
  for _ in {1..200}; do
    remove_cgroup "$dir"
    [ -d "$dir" ] || return 0
    sleep 0.01
  done
}
