#include "fleet/facts_script.h"

namespace fleet {
namespace {

// The shell itself reads the files, because a process costs more than all of them. Kernels before 6.1
// do not tell their architecture in a file, ip(8) is slower than hostname(1), which not all systems
// have with -I, and the df(1) of busybox has no -l. Its arguments: nonce, time for all parts, time for
// the updates ("": do not ask).
//
// Commands that may hang (a dead mount, a locked database) are parts. All run at the same time, each
// in a subshell, which prints the output when it is complete. A watchdog signals the shell when the
// time is over: wait returns on a trapped signal. Then all processes below the shell are killed. One
// that cannot be killed is left behind: the panel waits for the shell only.
constexpr const char* kScript = R"sh(
LC_ALL=C; export LC_ALL; PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin;
exec </dev/null 2>/dev/null;
n=$1; limit=$2; more=$3; nl=${IFS#??}; o=$nl; a=; late=; trap "late=1" USR1;

tell() { o=$o$n" $1"$nl; };
lines() { [ -f "$2" ] && while IFS= read -r x || [ "$x" ]; do tell "is $1 $x"; done <"$2"; };
part() { t=$1; shift; tell "begun $t";
( x=$("$@"); c=$?; [ "$t$c$x" = disks1 ] && x=$(df -P -k);
o=$nl; IFS=$nl; set -f; for x in $x; do
case $t:$x in disks:/*|disks:*" /") ;; disks:*) continue;; esac;
tell "is $t $x"; [ ${#o} -lt 3000 ] || { printf %s "$o"; o=; }; done;
tell "ran $t $c"; printf %s "$o" ) &
a="$a $!"; };

reap() { f=" $$ "; found=1;
while [ "$found" ]; do found=;
for d in /proc/[0-9]*; do
p=${d#/proc/}; case $f in *" $p "*) continue;; esac;
read -r s <"$d/stat" || continue; s=${s##*) }; s=${s#* }; s=${s%% *};
case $f in *" $s "*) f="$f$p "; found=1;; esac;
done; done;
kill -9 ${f# $$ }; };
await() { x=; for y in $a; do kill -0 "$y" && x=1; done; [ "$x" ] || { a=; return; };
{ trap "kill \$s; exit" TERM; sleep "$1" & s=$!; wait $s; trap - TERM;
while kill -s USR1 $$; do sleep 1; done; } >/dev/null & w=$!;
wait $a; kill $w; [ "$late" ] && reap; a=; late=; };

restarting() { needs-restarting -r >/dev/null; };
updates() { k=0; IFS=$nl; set -f;
case $m in
apt-get) x=$(apt-get -s dist-upgrade) || return;
for y in $x; do case $y in "Inst "*) k=$((k+1));; esac; done;;
*) x=$("$m" -q check-update); c=$?; [ $c = 0 ] || [ $c = 100 ] || return;
for y in $x; do case $y in Obsoleting*) break;; " "*) ;; *.*" "*) k=$((k+1));; esac; done;;
esac; echo $k; };

part disks df -P -k -l;
r=; [ -e /etc/redhat-release ] && { r=1; part version rpm -q --qf "%{version}.%{release}" -f /etc/redhat-release; };
for x in brefirctl /usr/local/bin/brefirctl /usr/bin/brefirctl /opt/panel/sbin/brefirctl; do
command -v $x >/dev/null && { part panel_version $x --version; break; }; done;
if [ -e /run/reboot-required ] || [ -e /var/run/reboot-required ]; then tell "is reboot yes";
elif [ "$r" ] && command -v needs-restarting >/dev/null; then part reboot_wanted restarting;
else for x in /boot/vmlinuz-*; do tell "is image ${x#/boot/vmlinuz-}"; done; fi;

if read -r x </proc/sys/kernel/arch; then
read -r y </proc/sys/kernel/osrelease; read -r z </proc/sys/kernel/hostname; tell "is uname $z $y $x";
else x=$(uname -n -r -m) && tell "is uname $x"; fi;
read -r x y </proc/uptime && tell "is uptime $x";
read -r x y </proc/loadavg && tell "is load $x";
while read -r x y z; do case $x in
MemTotal:|MemFree:|MemAvailable:|Buffers:|Cached:) tell "is memory $x $y";; Swap*) break;; esac;
done </proc/meminfo;
if read -r x </sys/devices/system/cpu/online; then tell "is online $x";
else while read -r x y; do case $x in cpu[0-9]*) tell "is cpu $x";; intr) break;; esac; done </proc/stat; fi;
for x in redhat-release debian_version lsb-release gentoo-release issue; do
[ -e /etc/$x ] && { tell "has $x"; lines $x /etc/$x; }; done;
x=; read -r x </etc/debian_version; [ -e /etc/lsb-release ] && x=;
case $x in [0-9]*) ;; *) lines os-release /etc/os-release || lines os-release /usr/lib/os-release;; esac;
l="apt-get dnf yum zypper apk emerge pacman"; [ "$r" ] && l="dnf yum $l"; m=;
for x in $l; do command -v $x >/dev/null && { m=$x; tell "is manager $x"; break; }; done;
for x in /var/lib/brefir/runs/*/made; do [ -f "$x" ] && { x=${x%/made}; y=${x##*/}; tell "is run $y";
s=; [ -f "$x/guard" ] && read -r s z <"$x/guard"; [ "$s" = armed ] && s=lost;
for z in armed fired restored; do [ -e "/run/brefir/guard-$y/$z" ] && s=$z; done; [ "$s" ] && tell "is guard $s"; }; done;
l=$(hostname -I) || l=$(ip -o addr);

await "$limit";
case $more$m in [0-9]*apt-get|[0-9]*dnf|[0-9]*yum) part updates updates; await "$more";; esac;
IFS=$nl; set -f; for x in $l; do tell "is address $x"; done; tell end; printf %s "$o"; exit 0;
)sh";

}  // namespace

std::string FactsCommand(const std::string& nonce, const FactsQuestion& question) {
  return pnl_host::PortableCommand(
      kScript, "brefir-facts",
      {nonce, std::to_string(kFactsTime), question.updates ? std::to_string(kUpdatesTime) : ""});
}

}  // namespace fleet
