#include "fleet/guard_scripts.h"

namespace fleet::scripts {

const char* const kGuardState = R"sh(
guards() { x=; read -r x <"$gd/$1"; gc=; [ "$x" ] && read -r gc <"/proc/$x/cmdline"; case $gc in *"guard-$run/"*) ;; *) false;; esac; } 2>/dev/null;
guarding() { gs=; if [ -e "$gd/restored" ]; then gs=restored; elif [ -e "$gd/fired" ]; then gs=fired;
elif [ -e "$gd/armed" ]; then gs=armed; guards armed || { gs=lost; [ -e "$gd/armed" ] || { gs=; [ -e "$gd/fired" ] && gs=fired; }; };
elif [ -f "$d/guard" ]; then read -r gs x <"$d/guard"; [ "$gs" = armed ] && gs=lost; fi; :; };
)sh";

// A session ends its processes in several ways: the guard has a session of its own, and leaves the
// control group of the login, for the topmost one. With systemd it is a unit of its own, and a second
// unit does its work if the host boots meanwhile; that one is gone, on the disk, before anybody hears
// that the token is claimed. It has another name: systemd refuses a transient unit that has a file.
//
// Times are hundredths of a second of /proc/uptime, which does not follow the clock of the wall.
//
// What makes or undoes more of a run leaves the guard alone until all steps have come, or are undone: its
// panel may die before. The guard then waits for the lock, and does the rest.
//
// What the guard needs when it goes off is written when it is armed, and in /run: the disk may be full
// then, or read-only.
const char* const kGuard = R"sh(
units=/etc/systemd/system;
hundredths() { read -r cs x </proc/uptime; x=${cs#*.}; cs=${cs%.*}$x; };
note() { printf "%-8s %s\n" "$1" "$(date +%s)" 1<>"$d/guard" || return; [ "$1" = armed ] || sync "$d/guard" 2>/dev/null; :; };
systemd() { [ -d /run/systemd/system ] && [ -O / ]; };

take_token() { guarding; [ "$gs" = armed ] || return; mv -- "$gd/armed" "$gd/claimed" 2>/dev/null;
[ -e "$gd/claimed" ] || { guarding; return 1; }; };
disarm() { for y in armed claimed fired restored; do [ -f "$gd/$y" ] && guards $y && { kill -9 "-$x" || kill -9 "$x"; there "$l/lock.$x" && rm -f -- "$l/lock.$x"; } 2>/dev/null; done;
rm -rf -- "$gd" "$d/guard"; unboot; };
unboot() { [ -d "$boot" ] || return 0; y=$units/multi-user.target.wants; rm -f -- "$units/$unit" "$y/$unit"; sync "$units" "$y" 2>/dev/null; [ -e "$units/$unit" ] || rm -rf -- "$boot"; };
dismiss() { [ -d "$gd" ] || [ -f "$d/guard" ] || [ -d "$boot" ] || return 0; disarm; };
unguard() { case $mode in end) take_token;; *) guarding;; esac; [ "$gs" ] && say "$n guard $gs"; [ "$mode" != end ] || dismiss; };

claim() { take_token && { disarm; gs=claimed; [ -e "$units/$unit" ] && gs=stays; }; say "$n guard ${gs:-none}"; };
ready() { guarding; case $gs in ""|armed) ;;
lost) abort "its guard is gone, for example by a reboot: the run has to be undone";;
restored) abort "its guard has gone off, and has put things back";;
*) abort "its guard has gone off, and has not put everything back yet";; esac; };
renew() { take_token && disarm; ready; };

arm() { first=$made; why="$gd cannot be written"; there "$gd" && rm -rf -- "$gd"; mkdir -- "$gd" && reverse "$gd/undo" && printf %s "$text" >"$gd/brefir-run" || return;
why="$d/guard cannot be written"; note armed || return; settle;
hundredths; began=$cs; set -- - guard "$run" 0 10 take 0 - - "*" - "$limit" 0 "$guard" "$first";
if systemd; then why="its unit cannot be written"; at_boot "$@" || return; fi;
why="it does not start"; start "$@" $((cs+guard*100));
until [ -e "$gd/armed" ]; do hundredths; [ "$cs" -lt $((began+500)) ] || return; sleep 0.02 2>/dev/null || sleep 1; done; };
start() { systemd && systemd-run -q --collect -p SuccessExitStatus=SIGKILL --unit="brefir-guard-$run" --description="brefir: puts run $run back" /bin/sh "$gd/brefir-run" "$@" </dev/null >/dev/null 2>&1 && return;
x=; command -v setsid >/dev/null && x=setsid; $x /bin/sh "$gd/brefir-run" "$@" </dev/null >/dev/null 2>&1 3>&- 4<&- 8>&- 9>&- & :; };
at_boot() { y=$units/multi-user.target.wants; mkdir -p -- "$y" "$boot" && cat <"$gd/brefir-run" >"$boot/brefir-run" &&
{ echo "[Unit]"; echo "Description=brefir: puts run $run back"; echo "RequiresMountsFor=$d"; echo "Before=ssh.service sshd.service";
echo "[Service]"; echo "Type=oneshot"; echo "ExecStart=/bin/sh $boot/brefir-run $* boot"; } >"$units/$unit" && ln -sf "$units/$unit" "$y/$unit" || return;
sync "$boot/brefir-run" "$units/$unit" "$boot" "$d" "$units" "$y" 2>/dev/null; :; };

guardian() { trap "" HUP; [ "$end" = boot ] && mkdir -p -- "$gd"; exec >"$gd/said" 2>&1;
[ "$end" = boot ] && { [ -f "$d/made" ] || { unboot; exit 0; }; reverse "$gd/undo"; echo $$ >"$gd/fired"; note fired; return; };
[ "$INVOCATION_ID" ] || for x in /sys/fs/cgroup/cgroup.procs /sys/fs/cgroup/*/cgroup.procs; do [ -w "$x" ] || continue; echo $$ >"$x"; [ "$x" = /sys/fs/cgroup/cgroup.procs ] && break; done;
echo $$ >"$gd/new" && mv -- "$gd/new" "$gd/armed" || exit 0;
while [ -e "$gd/armed" ]; do hundredths; [ "$cs" -lt "$end" ] || break;
if [ "$cs" -lt $((end-100)) ]; then sleep 1; else sleep 0.05 || sleep 1; fi; done;
mv -- "$gd/armed" "$gd/fired"; [ -e "$gd/fired" ] || exit 0; note fired; };
put_back() { [ -e "$gd/fired" ] || return; mode=undo; box=$gd; each <"$gd/undo" && { mv -- "$gd/fired" "$gd/restored"; note restored; }; unboot; };
)sh";

}  // namespace fleet::scripts
