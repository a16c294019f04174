#include "fleet/package_scripts.h"

namespace fleet::scripts {

// Full paths: some builds of busybox have a dpkg and an rpm of their own, which know little.
//
// The family is told by what the system is, not by the tools that somebody has installed on it.
const char* const kPackages = R"sh(
decode "\n"; nl=$v;
family() { fam=unknown; pm=; if [ -e /etc/redhat-release ]; then fam=redhat; elif [ -e /etc/debian_version ]; then fam=debian;
else x=; for y in /etc/os-release /usr/lib/os-release; do [ "$x" ] || { [ -r $y ] && x=$(. $y; echo "$ID $ID_LIKE"); }; done;
case " $x " in *" rhel "*|*" fedora "*|*" centos "*) fam=redhat;; *" debian "*|*" ubuntu "*) fam=debian;; esac; fi;
case $fam in debian) x=/usr/bin/apt-get;; redhat) x=/usr/bin/yum; [ -x $x ] || x=/usr/bin/dnf;; *) return;; esac;
rpm=/usr/bin/rpm; [ -x $rpm ] || rpm=/bin/rpm; [ -x $x ] && pm=$x; };
listed() { case $fam in
debian) own=$(/usr/bin/dpkg --print-architecture) || return;
{ dpkg-query -W -f "\${Package}:\${Architecture} \${Status} \${Version}\n" && echo "~"; } | while read -r x e e y v; do
case $x in "~") echo "~"; continue;; esac;
case $y in installed|triggers-*) ;; config-files) v=config;; not-installed|"") continue;; *) v=$y;; esac;
x=${x%:all}; printf "%s %s\n" "${x%:$own}" "$v"; done;;
redhat) own=$(uname -m) || return;
{ $rpm -qa --qf "%{NAME} %|EPOCH?{%{EPOCH}:}|%{VERSION}-%{RELEASE}%|ARCH?{.%{ARCH}}|\n" 2>/dev/null && echo "~"; } | sort | awk -v m="$own" "\$1 == \"~\" {w = 1; next} {n=\$1;
if (m == \"x86_64\" && match(\$2, /\.i[3-6]86\$/)) n = n substr(\$2, RSTART);
if (n in v) v[n] = v[n] \"/\" \$2; else v[n] = \$2} END {for (n in v) print n, v[n]; if (w) print \"~\"}" | sort;;
esac; };
held() { w=; j="/var/lib/dpkg/lock-frontend /var/lib/dpkg/lock";
[ "$fam" = debian ] || { j="/var/lib/rpm/.rpm.lock /usr/lib/sysimage/rpm/.rpm.lock";
for y in /var/run/yum.pid /var/lib/dnf/rpmdb_lock.pid /var/cache/dnf/download_lock.pid /var/cache/dnf/metadata_lock.pid; do
z=; [ -f "$y" ] && read -r z <"$y"; [ "$z" ] && grep -q -e yum -e dnf -e packagekit "/proc/$z/cmdline" 2>/dev/null && w="process $z holds $y"; done; };
for y in $j; do [ -e "$y" ] || continue;
z=$(grep " WRITE .*:$(stat -c %i "$y") " /proc/locks) || continue; z=${z##*WRITE }; z=${z%% *};
x=; read -r x <"/proc/$z/comm"; w="process $z ($x) holds $y"; done; [ "$w" ]; } 2>/dev/null;
idle() { t=0; while held; do [ $t -lt 60 ] || { fail "the package manager is busy: $w"; return; }; t=$((t+1)); sleep 1; done; };
)sh";

// The managers plan themselves. Of what they would replace or remove, the versions that can be had are
// asked, too: the step can be undone only with them.
const char* const kPackagePlans = R"sh(
fail() { return 1; };
frame() { say "$n o $(($(printf %s "$1" | wc -c)))"; say "$1"; };
apt() { DEBIAN_FRONTEND=noninteractive apt-get -s -yq -o APT::Get::AutomaticRemove=false "$@" 2>&1 </dev/null; };
yum() { "$pm" --assumeno --setopt=exit_on_lock=1 --setopt=clean_requirements_on_remove=0 "$@" 2>&1 </dev/null; };
plan_apt() { case $q in
install) set -- --no-remove install "$@"; case "$*" in *=*) set -- -o APT::Get::Allow-Downgrades=true "$@";; esac;;
update) set -- --no-remove install --only-upgrade "$@";;
remove) set -- remove "$@";;
all) set -- --no-remove upgrade --with-new-pkgs;; esac;
t=$(apt "$@"); z=$?;
x=$(say "$t" | sed -n "s/^Inst \([^ ]*\) .*/\1/p; s/^Remv \([^ ]*\) .*/\1/p"); [ "$x" ] || return;
v=$(apt-mark showauto $x 2>/dev/null </dev/null);
x=$(say "$t" | sed -n "s/^Inst \([^ ]*\) \[.*/\1/p; s/^Remv \([^ ]*\) .*/\1/p"); [ "$x" ] || return;
u=$(apt-cache madison $x 2>/dev/null </dev/null);
case $(apt-get --version) in "apt 0."*|"apt 1.0"*) ;; *) u=$u$nl$(ls /var/cache/apt/archives | grep "\.deb\$");; esac; };
plan_yum() { idle; case $q in all) set --;; esac; x=; for y in "$@"; do case $y in *=*) y=${y%%=*}-${y#*=};; esac; x="$x $y"; done; set -- $x;
case $q in all) q=update;; esac;
t=$(yum $q "$@"); z=$?;
case $t in *"Transaction Summary"*) ;; *) case $p in install*=*) x=$(yum downgrade "$@");
case $x in *"Transaction Summary"*) t=$x;; esac;; esac;; esac;
case $t in *Updating*:*|*Upgrading*:*|*Removing*:*|*Downgrading*:*|*replacing*)
x=$(say "$t" | sed -n "s/^ \([^ ][^ ]*\).*/\1/p; s/^ *replacing *\([^ ]*\) .*/\1/p");
u=$("$pm" -q --showduplicates list available $x 2>/dev/null </dev/null);; esac; };
plan() { set -- $p; q=$1; shift; t=; u=; v=; z=0; x=;
case $q in remove|install) for y in "$@"; do
case "$q$nl$all" in install*"$nl$y config$nl"*|remove*"$nl$y "*) x="$x $y";; install*"$nl$y "*|remove*) ;; *) x="$x $y";; esac; done; set -- $x;; esac;
if [ -z "$pm" ]; then z=127; elif [ "$q$#" = remove0 ] || [ "$q$#" = install0 ]; then :; elif [ "$fam" = debian ]; then plan_apt "$@"; else plan_yum "$@"; fi;
say "$n k $z"; frame "$t"; frame "$u"; frame "$v"; };
)sh";

// In the directory of the run, for step N: packages-N.before and packages-N.moved, all packages
// before it and what it did to them; packages-N.left, files that managers leave beside
// configuration files; packages-N.auto, packages that nobody asked for by name.
//
// Marks of a step: begun (the manager may be in the middle of it), ended (it said that it failed),
// done, back (taking back has begun), undone.
const char* const kPackageSteps = R"sh(
survey() { listed >"$d/packages-now" && [ "$(tail -n 1 "$d/packages-now")" = "~" ] && k=$(versions "$a") || fail "the list of packages cannot be read"; };
versions() { awk -v w="$1" "{v[\$1] = \$2} END {n = split(w, p, \",\"); for (j = 1; j <= n; j++) {x = p[j]; sub(/=.*/, \"\", x);
printf \"%s%s=%s\", (j > 1 ? \",\" : \"\"), x, (x in v) ? v[x] : \"missing\"}}" "$d/packages-now"; };
plain() { printf "%s\n" "$1" | sed "s/=config,/=missing,/g; s/=config\$/=missing/"; };
like() { [ "$(plain "$1")" = "$(plain "$2")" ]; };
others() { awk -v w="$k" -v o="$1" "BEGIN {n = split(w, p, \",\"); split(o, q, \",\"); for (j = 1; j <= n; j++)
if (p[j] == q[j]) ; else {x = p[j]; sub(/=/, \" is \", x); printf \"%s%s\", (m++ ? \", \" : \"\"), x}}"; };
moves() { [ -f "$d/packages-$i.before" ] || return 0; awk -v f="$d/packages-$i.before" "BEGIN {while ((getline <f) > 0) b[\$1] = \$2}
{v = (\$1 in b) ? b[\$1] : \"missing\"; if (v == \$2) ; else print \$1, v, \$2; delete b[\$1]}
END {for (x in b) print x, b[x], \"missing\"}" "$d/packages-now" >"$d/packages-unsorted" && sort "$d/packages-unsorted" >"$d/packages-$i.moved" || fail "$d/packages-$i.moved cannot be written"; };
told() { [ -f "$d/packages-$i.moved" ] && while read -r x; do say "$n moved $i $x"; done <"$d/packages-$i.moved"; :; };
leftovers() { find /etc \( -name "*.rpmsave" -o -name "*.rpmnew" -o -name "*.rpmorig" -o -name "*.dpkg-dist" -o -name "*.dpkg-old" -o -name "*.dpkg-new" -o -name "*.dpkg-tmp" \) 2>/dev/null; };
autos() { [ "$fam" = redhat ] || apt-mark showauto 2>/dev/null; };
remember() { [ -f "$d/packages-$i.before" ] && return 0; autos >"$d/packages-$i.auto"; leftovers >"$d/packages-$i.left";
[ $? -lt 128 ] || { fail "/etc cannot be searched"; return; };
cat "$d/packages-now" >"$d/packages-$i.before" && sync "$d" 2>/dev/null; [ -s "$d/packages-$i.before" ] || { rm -f -- "$d/packages-$i.before"; fail "$d cannot be written"; }; };
because() { tell; verdict "$1 ${2:-$e}"; return 1; };

mend() { idle || return; case $fam in
debian) run "DEBIAN_FRONTEND=noninteractive /usr/bin/dpkg --force-confdef --force-confold --configure -a";;
redhat) rm -f /var/lib/rpm/__db.*; [ -x /usr/sbin/yum-complete-transaction ] && run "yum-complete-transaction -y --cleanup-only";; esac; :; };
made() { while read -r x e e e e e e e y; do [ "$x" = "$i" ] && { decode "$y"; g=$v; return 0; }; done <"$d/made"; return 1; } 2>/dev/null;
singles() { printf "%s\n" "$1" | tr , "\n"; };
finish() { mend || return; survey || return; case $fam in
debian) x=; for y in $(singles "$k"); do case $y in *=half-*|*=unpacked) x="$x ${y%%=*}";; esac; done;
[ -z "$x" ] || run "DEBIAN_FRONTEND=noninteractive apt-get -yq --no-remove --reinstall install $x";;
redhat) for y in $(singles "$k"); do case $y in gpg-pubkey=*) ;; *=*/*) x=${y#*=}; case ",$1," in *",${y%%=*}=${x##*/},"*) run "$rpm -e --nodeps ${y%%=*}-$(bare "${x%%/*}")";; esac;; esac; done;; esac;
run "$g"; torn; survey; };
torn() { [ "$fam" = redhat ] && for y in $(singles "$a"); do $rpm -ql "${y%%=*}" 2>/dev/null; done | sed "s,/[^/]*\$,," | sort -u | while read -r x; do
[ -d "$x" ] && find "$x" -maxdepth 1 -name "*;????????" -newer "$d/packages-$i.before" -exec rm -f {} +; done; :; };

make_packages() { survey || { because failed; return; };
case $was in begun|ended) ;; *) like "$k" "$a" && { told; verdict already; return 0; };
like "$k" "$b" || { because "conflict because" "$(others "$b")"; return; };; esac;
idle && remember && { [ "$was" = begun ] && { finish "$a" || return 1; }; mark begun; } || { because failed; return; };
e=; like "$k" "$a" || try "$g"; x=$e; survey && moves || { because failed; return; }; told;
like "$k" "$a" && mark done && { tell; verdict done; return 0; };
case $x in "it was ended "*|"exit code 1"[2-5][0-9]) ;; *) mark ended;; esac; because failed "${x:-$(others "$a")}"; };

bare() { printf "%s\n" "$1" | sed "s/^[0-9]*://"; };
aims() { awk -v a="$a" -v k="$k" -v f="$fam" "function name(x, v) {if (match(x, /\.i[3-6]86\$/)) x = substr(x, 1, RSTART - 1); return x \"-\" v}
BEGIN {n = split(a, p, \",\"); split(k, q, \",\"); for (j = 1; j <= n; j++) {x = p[j]; sub(/=.*/, \"\", x);
t = p[j]; c = q[j]; sub(/^[^=]*=/, \"\", t); sub(/^[^=]*=/, \"\", c); if (t == c) continue;
if (f == \"debian\") {if (t == \"missing\" || t == \"config\") print \"gone\", x, t; else print \"bring\", x \"=\" t; continue}
if (index(t c, \"/\") == 0 && (t == \"missing\") + (c == \"missing\") == 0) {print \"change\", name(x, t), name(x, c); continue}
h = split(c, u, \"/\"); for (g = 1; g <= h; g++) if (u[g] == \"missing\" || index(\"/\" t \"/\", \"/\" u[g] \"/\")) ; else print \"gone\", name(x, u[g]);
h = split(t, u, \"/\"); for (g = 1; g <= h; g++) if (u[g] == \"missing\" || index(\"/\" c \"/\", \"/\" u[g] \"/\")) ; else print \"bring\", name(x, u[g])}}" </dev/null; };
aimed() { say "$aim" | while read -r x y z; do [ "$x" = "$1" ] && printf " %s" "$y"; done; };

where() { for x in $1; do y=${x%%=*}; z=${x#*=}; apt-cache madison "$y" 2>/dev/null | grep -qF " $z " || {
z=$(printf %s "$z" | sed "s/:/%3a/g"); for y in "/var/cache/apt/archives/${y%%:*}_${z}_"*.deb; do [ -f "$y" ] && x=$y; done; };
printf " %s" "$x"; done; };
back_debian() { gone=$(aimed gone); bring=$(aimed bring); o="DEBIAN_FRONTEND=noninteractive";
[ -f "$d/packages-$i.auto" ] || autos >"$d/packages-$i.auto";
if [ "$bring" ]; then x="-yq -o APT::Get::AutomaticRemove=false -o APT::Get::Allow-Downgrades=true -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold install$(where "$bring")";
for y in $gone; do x="$x $y-"; done; q=$(apt-get -s $x 2>&1) || { fail "$(say "$q" | grep -e "^E:" -e " Depends:" | tail -n 3)"; return; };
y=$(say "$q" | sed -n "s/^Remv \([^ ]*\) .*/\1/p") || { fail "the answer of apt-get cannot be read"; return; }; strange "$y" "$gone" || return;
try "$o apt-get -o DPkg::Lock::Timeout=60 $x" || return;
for x in $bring; do x=${x%%=*}; y=manual; grep -qFx -- "$x" "$d/packages-$i.auto" && y=auto; apt-mark $y "$x" >/dev/null 2>&1; done;
else q=$(/usr/bin/dpkg --no-act --force-remove-reinstreq --remove $gone 2>&1) || { strange "$(say "$q" | sed -n "s/^ \([^ ]*\) depends on .*/\1/p")" "$gone" || return; };
try "$o /usr/bin/dpkg --force-remove-reinstreq --remove $gone" || return; fi;
x=$(say "$aim" | sed -n "s/^gone \([^ ]*\) missing\$/\1/p"); set -- $x; [ $# = 0 ] || try "$o /usr/bin/dpkg --force-remove-reinstreq --purge $*"; };
strange() { t=; for x in $1; do case " $2 " in *" $x "*) ;; *) case ", $t," in *", $x,"*) ;; *) t="${t:+$t, }$x";; esac;; esac; done;
[ -z "$t" ] || { conflict=1; fail "$t would have to go, too; remove it first, or keep what it needs"; }; };
back_redhat() { gone=$(for x in $(aimed gone); do say "$x"; done | sed "s/-[0-9][0-9]*:/-/"); set -- $gone; gone="$*"; bring=$(aimed bring); change=$(aimed change); t=;
own=$(say "$aim" | sed -n "s/^change [^ ]* //p" | sed "s/-[0-9][0-9]*:/-/");
[ -z "$gone" ] || t=$($rpm -e --test $gone 2>&1 | sed -n "s/.*is needed by (installed) //p"); q=$t; set -- $own; strange "$q" "$gone $*" || return;
if [ -z "$q" ]; then remove_rpms && bring_rpms; else bring_rpms && remove_rpms; fi; };
remove_rpms() { [ -z "$gone" ] || try "$rpm -e $gone"; };
bring_rpms() { if [ "$change" ]; then try "$pm -y downgrade $change"; survey || return; aim=$(aims); change=$(aimed change);
[ -z "$change" ] || try "$pm -y install $change" || return; e=; fi;
[ -z "$bring" ] || try "$pm -y install $bring"; };
restore() { if [ -f "$d/packages-$i.left" ]; then leftovers | while read -r x; do grep -qFx -- "$x" "$d/packages-$i.left"; [ $? = 1 ] || continue;
y=${x%.rpmsave}; case $x in *.rpmsave) [ -e "$y" ] && mv -f -- "$x" "$y";; esac; rm -f -- "$x"; done;
elif [ "$fam" = redhat ]; then for y in $(aimed bring); do $rpm -qc "$y"; done 2>/dev/null | while read -r x; do [ -f "$x.rpmsave" ] && mv -f -- "$x.rpmsave" "$x"; done; fi; :; };
column() { awk -v c="$1" "{printf \"%s%s=%s\", (NR > 1 ? \",\" : \"\"), \$1, \$c}" "$d/packages-$i.moved"; };
take_back() { ran || { verdict already; return; };
e=; idle || { because failed; return; };
survey || { because failed; return; };
if [ "$was" = begun ]; then made && finish "$b"; moves || { because failed; return; }; fi;
if [ -f "$d/packages-$i.moved" ]; then a=$(column 2) && b=$(column 3) && k=$(versions "$a") || { because failed "$d/packages-$i.moved cannot be read"; return; }; fi;
case $was in begun|ended|back) ;; *) [ "$k" = "$a" ] || like "$k" "$b" || { because "conflict because" "$(others "$b")"; return; };; esac;
aim=$(aims) || { because failed "the versions cannot be compared"; return; }; [ "$aim" ] || { restore; mark undone; verdict done; return 0; };
mark back; conflict=; back_$fam; x=$e; survey || { because failed; return; };
restore; [ "$k" = "$a" ] && mark undone && { tell; verdict done; return 0; };
[ "$conflict" ] && { mark done; because "conflict because" "$x"; return; };
because failed "${x:-$(others "$a")}"; };
packages() { family; [ "$pm" ] || { verdict "failed the package manager is not there"; return 1; };
case $b:$a in none:*|*:none) verdict already; return 0;; esac;
last; was=$y; if [ "$mode" = make ]; then make_packages; else take_back; fi; } </dev/null;
)sh";

}  // namespace fleet::scripts
