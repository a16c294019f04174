#include "fleet/run_scripts.h"

namespace fleet::scripts {

// What a process prints is taken as whole only with a sign of its end: it may be killed at any time
// when memory is short, and an empty path or a shorter list would pass for another answer.
//
// s is where the directories of runs are, l that of the lock.
const char* const kWords = R"sh(
if [ -O / ]; then s=/var/lib/brefir/runs; l=/run; [ -d /run ] || l=/var/run; l=$l/brefir;
else s=${XDG_STATE_HOME:-$HOME/.local/state}/brefir/runs; l=${s%/runs}; fi;
decode() { v=$(printf %bx "$1"); case $v in *x) v=${v%x};; *) exit 1;; esac; };
)sh";

// Commands of the shell cost microseconds, processes a millisecond: content that is printed is summed
// by the panel. Lengths are bytes; some shells count characters, and are found out with one of two bytes.
//
// Kinds of questions: F a path, links followed; T the same, for its text; N a path, the last part not followed; D how many parts
// of a path are missing; P a kernel parameter; U a user's name; G a group's name; Y the family of the system; L
// all packages; Q a change of packages, "ACTION NAME...". "~USER" at the
// beginning of a path is that user's home.
const char* const kLook = R"sh(
set +C +e +u; LC_ALL=C; export LC_ALL; PATH=${PATH:-/usr/bin:/bin}:/usr/local/sbin:/usr/sbin:/sbin;
n=$1; small=$2; large=$3; set -f; say() { printf "%s\n" "$1"; };
m=; for x in /etc/machine-id /var/lib/dbus/machine-id "${s%/runs}/machine-id"; do
[ "$m" ] || { [ -r "$x" ] && read -r m <"$x"; }; done;
[ "$m" ] || { m=$(od -An -N16 -tx4 /dev/urandom); set -- $m; IFS=; m="$*"; unset IFS;
( umask 077; mkdir -p "${s%/runs}" && echo "$m" >"${s%/runs}/machine-id" ) 2>/dev/null || m=; };
say "$n m $m";
set +f; for x in "$s"/*/made; do [ -f "$x" ] && { e=0; read -r e <"${x%made}epoch"; d=${x%/made}; run=${d##*/}; say "$n r $run $e";
gd=$l/guard-$run; guarding; [ "$gs" ] && say "$n g $gs"; }; done; set -f;
b=; [ -d /run/systemd/system ] && [ -O / ] && b=systemd; say "$n b $b";

asked=; passwd() { [ "$asked" = "$1" ] && return; asked=$1; entry=$(getent passwd "$1" 2>/dev/null || grep -- "^$1:" /etc/passwd); };
home() { case $p in "~"*) u=${p%%/*}; u=${u#"~"}; passwd "$u";
h=${entry#*:*:*:*:*:}; h=${h%%:*}; [ "$h" ] && p=${h%/}${p#"~$u"};; esac; };
x=$(printf "\303\251"); counts=${#x}; length() { if [ "$counts" = 2 ]; then l=${#1}; else l=$(printf %s "$1" | wc -c); l=$((l)); fi; };
state() { w=$p; home; f=$p; d=${p%/*}; if q=$(cd -P -- "${d:-/}" 2>/dev/null && pwd -P && printf x); then q=${q%?x}; f=${q%/}/${p##*/}; fi;
[ "$k" = F ] && [ -h "$f" ] && { q=$(readlink -f -- "$f" 2>/dev/null && printf x); q=${q%?x}; [ -e "$q" ] && f=$q; };
a=missing; t=; c=0;
if [ -e "$f" ] || [ -h "$f" ]; then a=$(stat -c "%f %u %g %Y %s" -- "$f") || a=unreadable;
elif [ ! -d "${d:-/}" ]; then a=nowhere; fi;
if [ -h "$f" ]; then t=$(readlink -- "$f"); elif [ -f "$f" ]; then
[ "$a" = unreadable ] || [ -r "$f" ] || a=unreadable;
z=${a##* }; if [ "$a" = unreadable ]; then c=0; elif [ "$z" -le "$limit" ]; then c=$z; else c=$(cksum <"$f"); c=s${c%% *}; fi; fi;
[ "$f" = "$w" ] && f=; length "$f"; [ "$t" ] && t=$(printf %s "$t" | od -An -v -tx1);
say "$n f $l $c $a"; printf %s "$f"; echo; set -- $t; IFS=; say "$*"; unset IFS;
[ "$f" ] || f=$p;
case $c in 0|s*) ;; *) cat -- "$f";; esac; echo; say "$n e"; };
missing() { c=0; home; f=$p; until [ -e "$f" ] || [ -h "$f" ]; do c=$((c+1)); f=${f%/*}; [ "$f" ] || f=/; done;
[ -d "$f" ] || c=-; say "$n d $c"; };
value() { if v=$(sysctl -n -- "$1" 2>&1); then set -- $v; say "$n p $*"; else set -- $v; say "$n q $*"; fi; };
number() { say "$n i $("$@" 2>/dev/null)"; };
group() { x=$(getent group "$1" 2>/dev/null || grep -- "^$1:" /etc/group); x=${x#*:*:}; echo "${x%%:*}"; };

while read -r k w; do limit=$small; [ "$k" = T ] && { k=F; limit=$large; };
decode "$w"; p=$v;
case $k in
F|N) state;;
D) missing;;
P) value "$p";;
U) x=; [ "$asked" = "$p" ] && x=${entry#*:*:}; if [ "$x" ]; then say "$n i ${x%%:*}"; else number id -u -- "$p"; fi;;
G) number group "$p";;
Y) family; say "$n y $fam $(uname -m) ${pm##*/}";;
L) all=$(listed); case $all in *"~") all=${all%"~"};; *) all=;; esac; frame "$all";;
Q) plan;;
esac;
done; say "$n end";
)sh";

// A step is a line "NUMBER FORM PATH BEFORE AFTER SIZE MODE OWNER EXTRA", "-" for what is not given.
// BEFORE and AFTER are states as `look` finds them.
//
// Beside a file stand, while a run has not ended: .brefir-new-RUN-N, the new file until it is complete,
// and .brefir-old-RUN-N, the old one. Their names tell a later command what an interrupted one has
// left.
//
// In the directory of the run, "made" has the steps; "undo" those of an undoing after the end; "lines" has
// the numbers of steps that were undone: what the object is after that is the work of others, or of an
// earlier step. A state "-" of a step to be undone is secret: "made" has it.
//
// "marks" says how far the commands have come: lines "NUMBER begun", done, failed-begun, undoing, undone,
// failed-undoing. It is synced before a command begins, because a command cannot be read back. After the
// end it stays for a day, so that nothing is made or undone twice, not even by a panel whose journal comes
// from a backup. The command that runs now is in a session
// of its own, and in "child" of the lock's directory, with the second of the uptime when it is ended:
// until then nobody takes the lock from it. What comes before a command that began was made, and is not
// looked at again: the command may have changed it.
//
// Whoever holds the lock may be the command of a panel that is dead, and it may come to itself at any
// time: only under the lock is anything looked at, and a run's epoch is compared there.
const char* const kWork = R"sh(
set +C +e +u; lang=${LC_ALL-}; LC_ALL=C; export LC_ALL; umask 077; PATH=${PATH:-/usr/bin:/bin}:/usr/local/sbin:/usr/sbin:/sbin;
n=$1; mode=$2; run=$3; epoch=$4; wait=$5; take=$6; count=$7; fence=$8; machine=$9; known=${10}; committed=${11}; limit=${12}; made=${13}; guard=${14}; first=${15:-0}; end=${16};
d=$s/$run; box=$d; gd=$l/guard-$run; boot=$d/guard-$run; unit=brefir-guard-$run-boot.service; exec 4<&0; say() { printf "%s\n" "$1"; };
refuse() { say "$n refused $1"; exit 0; };
abort() { rm -f -- "$d/in" "$d/make"; [ "$fresh" ] && [ "$mode" = make ] && rm -f -- "$d/made" && [ "$fence$e" = -0 ] && rm -rf -- "$d"; refuse "$1"; };
full() { echo | cat >"$1"; abort "$1 cannot be written"; };
verdict() { say "$n step $i $1"; };
fail() { e=$1; return 1; };

look() { if [ -h "$1" ]; then k=$(readlink -- "$1"); k=link:$(printf %s "$k" | cksum);
elif [ -f "$1" ]; then k=file:$(cksum <"$1"); elif [ -d "$1" ]; then k=directory;
elif [ -e "$1" ]; then k=other; else k=missing; fi;
case $k in *" "*) k=${k%% *}:${k#* }; k=${k%% *};; esac; };
there() { [ -e "$1" ] || [ -h "$1" ]; };
over() { mv -fT -- "$1" "$2" 2>/dev/null || { [ -d "$2" ] && [ -d "$1" ] && return 1; mv -f -- "$1" "$2"; }; };
keep() { [ "$mode" = undo ] || [ "$b" = missing ] && return 0;
case $b in link:*) ln -s -- "$(readlink -- "$f")" "$o";; *) ln -- "$f" "$o" 2>/dev/null || cp -p -- "$f" "$o";; esac ||
fail "the old one cannot be kept"; };

fill() { y=/proc/self/fd/3; [ -e "$y" ] || y=$x; q=$m; u=$w;
[ -f "$f" ] && { cp -a --attributes-only -- "$f" "$y" || chown "$(stat -c %u:%g -- "$f")" "$y"; } 2>/dev/null;
if [ "$op" = copy ]; then cat -- "$g" >&3; elif [ "$z" = - ]; then fail wanted; return; elif [ "$z" = 0 ]; then :;
elif [ "$count" = 1 ]; then cat <&4 >&3; else tail -c "+$((at+1))" "$in" | head -c "$z" >&3; fi ||
fail "its content cannot be written" || return;
if [ -f "$f" ]; then set -- $(stat -L -c %a:%u:%g -- "$f" "$y"); t=$2;
[ "$t" ] || fail "its owner and mode cannot be read" || return;
[ "$q" = - ] && q=${1%%:*}; [ "$u" = - ] && u=${1#*:};
else t=$(stat -L -c %a:%u:%g -- "$y"); [ "$u" = - ] && u=${t#*:}; fi;
[ "$t" = "$q:$u" ] || { chown "$u" "$y"; chmod "$q" "$y"; [ "$(stat -L -c %a:%u:%g -- "$y")" = "$q:$u" ]; } 2>/dev/null ||
fail "owner and mode cannot be set" || return;
t=$(cksum <"$y"); t=${t%% *}:${t#* }; [ "file:${t%% *}" = "$a" ] || fail "its content did not come whole" || return;
dd if=/dev/null conv=notrunc,fsync 2>/dev/null >&3 || fail "it cannot be synced to the disk"; };
file() { e="the temporary file beside it cannot be made";
set -C; { set +C; e=; fill; } 3>"$x"; r=$?; set +C; [ "$r" = 0 ] && proper || { rm -f -- "$x"; return 1; };
[ -h "$x" ] && { fail "somebody else has put a link in the place of the temporary file"; return; };
if [ "$b" = missing ] && ln -- "$x" "$f" 2>/dev/null; then rm -f -- "$x"; return 0; fi;
[ "$mode" = make ] || [ "$b" = missing ] || { look "$f"; [ "$k" = "$b" ] || { fail conflict; rm -f -- "$x"; return 1; }; };
take "$x" || { rm -f -- "$x"; return 1; };
[ "$mode" = undo ] || [ "$b" = missing ] && return 0;
look "$o"; [ "$k" = "$b" ] || { over "$o" "$f"; fail conflict; }; };
proper() { y=; [ "$mode:$f" = make:/etc/ssh/sshd_config ] && y=$(command -v sshd); [ "$y" ] || return 0;
t=$("$y" -t -f "$x" 2>&1) || { set -f; set -- $t; set +f; fail "sshd refuses it: $*"; }; };
take() { if [ "$b" = missing ] && there "$f"; then fail conflict; return; fi;
keep || return; over "$1" "$f" || fail "the new one cannot take its place"; };
gone() { if [ "$mode" = undo ]; then
case $b in directory) rmdir -- "$f" 2>/dev/null || fail "it is a directory with files of others";; *) rm -f -- "$f" || fail "it cannot be removed";; esac; return; fi;
over "$f" "$o" || fail "it cannot be removed" || return;
look "$o"; [ "$k" = "$b" ] || { over "$o" "$f"; fail conflict; }; };
link() { ln -s -- "$g" "$x" || fail "the link cannot be made" || return;
take "$x" || { rm -f -- "$x"; return 1; }; };
directory() { mkdir -- "$f" 2>/dev/null || fail "the directory cannot be made" || return;
{ [ "$w" = - ] || chown "$w" "$f"; } && chmod "$m" "$f" || fail "owner and mode cannot be set"; };
attributes() { { [ "$w" = - ] || [ "$(stat -c %u:%g -- "$f")" = "$w" ] || chown "$w" "$f"; } &&
{ [ "$m" = - ] || chmod "$m" "$f"; } || fail "owner and mode cannot be set"; };
move() { take "$g"; };
kept() { fail "the old one was kept nowhere"; };
same() { v=$(sysctl -n -- "$p" 2>&1); set -f; set -- $v; v="$*"; set +f; };
parameter() { v=$(sysctl -w -- "$p=$a" 2>&1) || fail "the kernel refused it: $v" || return;
same; [ "$v" = "$a" ] || fail "the kernel has $v now"; };

now() { case $op in
parameter) same; k=$v;;
attributes) k=missing; there "$f" && k=$(stat -c %a:%u:%g -- "$f");;
time) k=missing; there "$f" && k=$(stat -c %Y -- "$f");;
move) look "$g"; y=$k; look "$f"; k="$y>$k";;
*) look "$f";;
esac; };
step() { e=; case $op in command|service) invoke; return;; packages) packages; return;; esac;
now; case $op in move) was="$a>$b"; is="missing>$a";; *) was=$b; is=$a;; esac;
[ "$k" = "$is" ] && { [ "$mode" = undo ] && rm -f -- "$x"; verdict already; return 0; };
case $mode$op in undomove) [ "${k%%>*}" = "$a" ] || { [ "${k#*>}" = "$a" ] && { verdict already; return 0; }; };; esac;
[ "$k" = "$was" ] || { grep -qx "$i" "$d/lines" 2>/dev/null && { verdict already; return 0; }; verdict "conflict $k"; return 1; };
case $op in parameter) ;; *) there "$x" && { rm -f -- "$x"; there "$x" && { verdict "failed somebody else puts a file in the place of the temporary one"; return 1; }; }; [ "$mode" = make ] && there "$o" && rm -rf -- "$o";; esac;
if case $mode$op in make*|*lines|*move|*parameter|*attributes|*time) false;; *) there "$o";; esac; then
over "$o" "$f" || fail "the old one cannot take its place";
else case $op in
copy|lines) file;;
time) touch -d "@$a" -- "$f" || fail "its time cannot be set";;
*) $op;;
esac; fi || { case $e in conflict) verdict "conflict $k";; wanted) verdict wanted;; *) verdict "failed ${e:-it cannot be done}";; esac; return 1; };
[ "$mode" = undo ] && [ -d "$d" ] && echo "$i" >>"$d/lines";
case $op in parameter) ;; *) [ "$h" = "${f%/*}" ] || { h=${f%/*}; sync "${h:-/}" 2>/dev/null; };; esac;
verdict done; };

mark() { echo "$i $1" >>"$d/marks" || { fail "$d/marks cannot be written"; return; }; sync "$d/marks" "$d" 2>/dev/null; :; };
last() { y=; [ -f "$d/marks" ] && while read -r x z; do [ "$x" = "$i" ] && y=$z; done <"$d/marks"; :; };
uptime() { read -r now x </proc/uptime; now=${now%%.*}; };
shell() { umask 022; if [ "$lang" ]; then LC_ALL=$lang; else unset LC_ALL; fi; exec 3>&- 4<&- 8>&- 9>&-;
if command -v setsid >/dev/null; then exec setsid sh -c "$1"; else exec sh -c "$1"; fi; };
watch() { trap "" PIPE; trap "kill \$s; exit" TERM; x=0; y=5; [ "$most" -ge 5 ] || y=$most;
while :; do sleep $y >/dev/null & s=$!; wait $s; x=$((x+y)); say "$n alive";
[ $x -lt "$most" ] || { : >"$box/late"; kill -9 "-$c" || kill -9 "$c"; return; }; done; };
run() { most=$limit; case $mode:$op:$guard in *:-|*:packages:*|undo:command:*) ;; *) [ "$limit" -le "$guard" ] || most=$guard;; esac;
rm -f -- "$box/late"; shell "$1" </dev/null >"$box/out" 2>&1 & c=$!;
uptime; echo "$c $((now+most))" >"$l/child"; watch 4<&- 8>&- 2>/dev/null & w=$!;
{ wait $c; k=$?; } 2>/dev/null; { kill $w; wait $w; } 2>/dev/null; rm -f -- "$l/child"; return $k; };
tell() { [ -s "$box/out" ] && tail -c 4000 <"$box/out" | while IFS= read -r x || [ "$x" ]; do say "$n out $i $x"; done; };
ran() { case $y in "") [ "$committed" = committed ] && [ ! -f "$d/made" ];; undone) return 1;; esac; };
try() { run "$1" && return; e="exit code $k"; [ -f "$box/late" ] && e="it was ended after $most seconds"; return 1; };
invoke() { last; was=$y; case $mode:$op:$y in
make:*:done|undo:*:undone) verdict already; return;;
make:command:begun) verdict "failed it was interrupted, and whether it had its effect is not known"; return 1;;
undo:command:undoing) verdict "failed undoing it was interrupted, and whether that had its effect is not known"; return 1;;
undo:command:) [ "$committed" = made ] && [ ! -f "$d/made" ] && { verdict "failed it was made, but this node knows nothing of that any more"; return 1; };; esac;
stage=begun; [ "$mode" = make ] || { ran || { verdict already; return; }; stage=undoing;
[ "$g" = - ] && { verdict "failed it has run, and cannot be undone"; return 1; }; };
{ mark $stage || [ "$mode$op" = undoservice ]; } && try "$g"; k=$?; y=undone; [ "$mode" = make ] && y=done;
[ $k = 0 ] && mark $y && { tell; verdict done; return; };
[ $k = 0 ] || mark "failed-$stage"; tell;
case $mode:$op:$was in undo:service:failed-begun) mark undone; verdict "done failed again: $e"; return 0;; esac;
verdict "failed $e"; return 1; };

recall() { [ -f "$d/made" ] || return 1; x=; while read -r x e e v y e; do [ "$x" = "$i" ] && break; done <"$d/made"; [ "$x" = "$i" ] || return 1;
if [ "$op" = move ]; then a=$y; else [ "$b" = - ] && b=$y; [ "$a" = - ] && a=$v; fi; :; };
each() { off=0; h=-; r=0; [ "$mode" = make ] && [ -f "$d/marks" ] && while read -r x y; do [ "$x" -gt "$made" ] && made=$x; done <"$d/marks";
while read -r i op p b a z m w g; do
case " $b $a " in *" - "*) recall || { verdict wanted; r=1; continue; };; esac;
decode "$p"; p=$v; f=$p;
case $op in parameter) decode "${b#=}"; b=$v; decode "${a#=}"; a=$v;; esac;
[ "$g" = - ] || { decode "$g"; g=$v; };
x=${f%/*}/.brefir-new-$run-$i; o=${f%/*}/.brefir-old-$run-$i;
at=$off; case $op:$z in file:[0-9]*|lines:[0-9]*) off=$((off+z));; esac;
[ "$mode" = make ] && { [ "$i" -lt "$made" ] && { verdict already; continue; };
[ -e "$gd/fired" ] && { verdict "failed it took longer than $guard seconds, and the guard has gone off"; r=1; break; }; };
step || { r=1; [ "$mode" = undo ] || break; };
done; return $r; };
drop() { [ $# = 0 ] || rm -rf -- "$@" || refuse "the kept copies cannot be removed"; };
tidy() { set --; x=$d/made; [ -f "$x" ] || x=$d/undo; [ -f "$x" ] && while read -r i op p b a z m w g; do
case $op in parameter|command|service|packages) continue;; esac; decode "$p"; p=$v;
set -- "$@" "${p%/*}/.brefir-new-$run-$i" "${p%/*}/.brefir-old-$run-$i"; [ $# -lt 200 ] || { drop "$@"; set --; };
done <"$x"; drop "$@";
x=; [ -f "$d/marks" ] && x=keep;
if [ "$fence$x" = - ]; then rm -rf -- "$d"; else
rm -f -- "$d/made" "$d/make" "$d/undo" "$d/in" "$d/lines" "$d/out" "$d/late" "$d"/packages-*; fi || refuse "the files in $d cannot be removed"; forget; say "$n ended"; };
forget() { set --; for x in "$s"/*; do [ "$x" = "$d" ] || [ -f "$x/made" ] || [ -f "$x/undo" ] || { [ -d "$x" ] && set -- "$@" "$x"; }; done;
[ $# = 0 ] || find "$@" -maxdepth 0 -type d -mtime +0 -exec rm -rf -- {} +; } 2>/dev/null;

settle() { sync "$d"/[gmu]* "$d/epoch" "$d" "$s" 2>/dev/null; :; };
strangers() { [ "$known" = "*" ] || for x in "$s"/*/made; do x=${x%/made}; x=${x##*/};
case " $run $known " in *" $x "*) ;; *) [ ! -f "$s/$x/made" ] || refuse "run $x of another panel has begun there meanwhile: try again when it has ended";; esac; done; };
work() { [ "$mode" = guard ] && { put_back; return; };
m=; for x in /etc/machine-id /var/lib/dbus/machine-id "${s%/runs}/machine-id"; do
[ "$m" ] || { [ -r "$x" ] && read -r m <"$x"; }; done;
[ "$machine" = - ] || [ "$m" = "$machine" ] || refuse "it is another machine now (machine-id $m)";
e=0; [ -f "$d/epoch" ] && read -r e <"$d/epoch"; e=${e:-0};
[ "$epoch" -ge "$e" ] || refuse "epoch $e";
case $mode in make) strangers; ready;; *) unguard;; esac;
[ "$mode$fence" = end- ] || [ -d "$d" ] || mkdir -p -- "$d" || [ "$mode$fence" = undo- ] || refuse "$d cannot be made";
fresh=; [ -f "$d/made" ] || fresh=1;
new=; if [ -d "$d" ] && [ "$epoch" -gt "$e" ]; then new=$d/epoch; echo "$epoch" 1<>"$new" || [ "$mode$fence" = undo- ] || full "$new"; fi;
if [ "$mode" = end ]; then [ "$new" ] && sync "$new" 2>/dev/null; tidy; return; fi;
[ "$mode" = salvage ] && { salvage; return; };
y=$l/undo; [ "$mode" = make ] && { y=$d/make; [ "$fresh" ] && y=$d/made; };
while read -r x; do [ "$x" = . ] && break; say "$x" || { x=full; break; }; done >"$y" || abort "$y cannot be written";
[ "$x" = full ] && full "$y"; [ "$x" = . ] || abort "the steps did not come whole";
case $mode$fresh in make) mv -f -- "$y" "$d/made" || abort "$d/made cannot be written"; y=$d/made;;
undo1) cat <"$y" >"$d/undo" || rm -f -- "$d/undo";; esac 2>/dev/null;
case $mode:$guard:$new$fresh in make:-:*|undo:*:?*) settle;; esac;
in=$d/in; [ -d "$d" ] || in=$l/in;
[ "$count" -le 1 ] || cat <&4 >"$in" || abort "the content cannot be written";
list=$y; [ "$mode" = undo ] || renew; [ "$guard" = - ] || arm || { disarm; abort "the guard cannot be armed: $why"; };
each <"$list"; r=$?; [ "$count" -le 1 ] || rm -f -- "$in"; [ "$mode" = make ] && return; rm -f -- "$l/undo"; dismiss; [ $r = 1 ] || tidy; };

salvage() { [ -f "$d/made" ] || { dismiss; say "$n ended"; return; };
reverse "$d/undo" || abort "$d/undo cannot be written"; mode=undo; each <"$d/undo"; r=$?; dismiss; [ $r = 1 ] || tidy; };
reverse() { spoilt=; y=$d/made; { read -r x && read -r x; } <"$y" && { y=$1.in; sort -rn "$d/made" >"$y" || return; };
{ while read -r i op p b a z m w g; do [ "$g" ] && [ "$i" -ge "$first" ] && { [ "$mode" = salvage ] && say "$n object $i $p"; back; }; done <"$y";
while read -r i op p b a z m w g; do [ "$op:$m" = service:again ] && [ "$i" -ge "$first" ] && line service "$p" none run "$g"; done <"$d/made"; } 9>"$1";
[ "$y" = "$d/made" ] || rm -f -- "$y"; [ -f "$1" ] && [ -z "$spoilt" ]; };
back() { case $op in
move) line move "$g" missing "$a" "$p"; [ "$b" = missing ] || line kept "$p" missing "$b" -;;
attributes) m=${b%%:*}; w=${b#*:}; line attributes "$p" "$a" "$b" -;;
time|parameter|packages) line "$op" "$p" "$a" "$b" -;;
command) g=$w; w=-; line command "$p" none run "$g";;
service) ;;
*) x=kept; [ "$b" = missing ] && x=gone; line "$x" "$p" "$a" "$b" -;;
esac; };
line() { say "$i $1 $2 $3 $4 - ${m:--} ${w:--} $5" >&9 || spoilt=1; };

alive() { [ "$y" = "$boot" ] && grep -q brefir-run "/proc/$x/cmdline"; } 2>/dev/null;
owner() { echo "$$ $run" >"$l/owner"; };
occupied() { [ "$take" = take ] && [ -f "$l/child" ] && read -r x y <"$l/child" && [ -d "/proc/$x" ] && { z=$y; uptime; [ "$now" -lt "${z:-0}" ]; }; };
evict() { read -r x y <"$l/owner" || return 1; grep -q brefir-run "/proc/$x/cmdline" 2>/dev/null || return 1;
[ -f "$l/child" ] && read -r c z <"$l/child" && kill -9 "-$c" 2>/dev/null; rm -f -- "$l/child";
y=$(cut -d" " -f5 "/proc/$x/stat"); kill -9 "-$y" 2>/dev/null; };
[ -d "$l" ] || mkdir -p -- "$l" || refuse "$l cannot be made";
case $mode in claim) claim; say "$n end"; exit 0;; guard) guardian;; esac;
if command -v flock >/dev/null; then
command : 8>>"$l/lock" || refuse "the lock $l/lock cannot be used";
( r=0; until flock -w 1 8; do r=$((r+1)); say "$n alive";
[ $r -lt "$wait" ] || { occupied && r=0; } || { [ "$take" = take ] && { evict; flock -w 5 8; } && break; refuse "the lock $l/lock is held"; }; done; owner; work; : ) 8>>"$l/lock" || exit;
else
read -r boot </proc/sys/kernel/random/boot_id; r=0; u=$l/lock.$$; trap "rm -f \"$u\"" EXIT;
echo "$$ $boot" >"$u" || refuse "$u cannot be written";
until ln "$u" "$l/lock.d" 2>/dev/null; do
x=; [ -f "$l/lock.d" ] && read -r x y <"$l/lock.d";
[ -z "$x" ] || alive || { mv "$l/lock.d" "$u.old" && { read -r e y <"$u.old"; [ "$e" = "$x" ] || ln "$u.old" "$l/lock.d"; rm -f "$u.old"; }; continue; };
[ $r -lt "$wait" ] || { occupied && r=0; } || { [ "$take" = take ] && evict && r=$((wait-5)); } || refuse "the lock $l/lock.d is held";
r=$((r+1)); say "$n alive"; sleep 1; done;
trap "rm -f \"$u\" \"$l/lock.d\"" EXIT; owner; work;
fi; say "$n end";
)sh";

}  // namespace fleet::scripts
