#include "fleet/key_audit_script.h"

#include "fleet/key_audit.h"
#include "pnl/host.h"

namespace fleet {
namespace {

// A dead mount, a directory service without an answer or a file that became a pipe meanwhile can hold up
// the work for ever: timeout(1) ends it with all its children, if there is one that knows -s. Its
// arguments: nonce, seconds, the work.
constexpr const char* kScript = R"sh(
LC_ALL=C; export LC_ALL; PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin; export PATH;
exec </dev/null 2>/dev/null;
t=; timeout -s KILL 5 true && t="timeout -s KILL";
${t:+$t $2} /bin/sh -c "$3" brefir-keys-work "$1" "$4" "$t";
printf "\n%s end\n" "$1"; exit 0;
)sh";

// AuthorizedKeysFile may be different in each Match block. To ask sshd for each user is slow, so only those
// are asked for that have one of the files of such a block. Of the logs, only the last line for each user
// and key is sent, and only lines that sshd itself has begun: a name that somebody tries to log in with
// may contain all the words of such a line. Its arguments: nonce, bytes of a file, "timeout -s KILL" or "".
constexpr const char* kWork = R"sh(
n=$1; max=$2; t=$3; nl=${IFS#??}; seen=$nl; logs=; exec 4>&1;
tell() { printf "\n%s %s\n" "$n" "$1"; };
for x in /var/log/secure-*[0-9]; do [ -f "$x" ] && logs=$x; done;
logs="$logs /var/log/auth.log.1 /var/log/auth.log /var/log/secure.1 /var/log/secure";
more=; cd /etc/ssh && more=$(awk "FNR == 1 { m = 0 }
{ gsub(/[=\"]/, \" \"); k = tolower(\$1); if (k == \"match\") m = 1;
if (m && k == \"authorizedkeysfile\") { \$1 = \"\"; print } }" sshd_config sshd_config.d/*.conf);
cd /; set -f;

value() { v=${x#*"$nl$1 "}; [ "$v" = "$x" ] && { v=; return 1; }; v=${v%%"$nl"*}; };
given() { value "$1" && case $v in none) false;; esac; };
config() { x=$("$@") && x=$nl$x$nl && value authorizedkeysfile; };
files=".ssh/authorized_keys .ssh/authorized_keys2";
if s=$(command -v sshd); then
s="${t:+$t 30} $s -T"; who=host=localhost,addr=127.0.0.1,user=;
if config $s || config $s -C ${who}root; then tell config; files=$v;
given authorizedkeyscommand && tell "command $v";
given trustedusercakeys && tell "ca $v";
else tell unasked; more=; fi;
else more=; fi;

users=; command -v getent >/dev/null && { users=$(${t:+$t 30} getent passwd) || { users=; tell local; }; };
[ "$users" ] || users=$(cat /etc/passwd);

expand() { f=; y=$1;
while :; do case $y in
*%*) f=$f${y%%%*}; y=${y#*%};
case $y in h*) f=$f$h;; u*) f=$f$u;; U*) f=$f$i;; %*) f=$f%;; esac; y=${y#?};;
*) f=$f$y; break;; esac; done;
case $f in /*) ;; *) f=${h%/}/$f;; esac; };
there() { [ -e "$f" ] || [ -h "$f" ]; };
hidden() { d=$f; while d=${d%/*}; [ "$d" ]; do
[ -e "$d" ] || [ -h "$d" ] || continue; [ -d "$d" ] || return 1; [ -x "$d" ] && return 1; return 0;
done; return 1; };
get() {
case $seen in *"$nl$f$nl"*) tell "same $u:$f"; return;; esac; seen=$seen$f$nl;
tell "file $u:$f"; [ -f "$f" ] || { tell odd; return; };
r=$({ { head -c "$max" <"$f" || echo bad >&3; } | sed "s/^/$n k /" >&4; } 3>&1);
tell "${r:-read}"; };

printf "%s\n" "$users" | while IFS=: read -r u x i x x h x; do
case $u in ""|[-+]*) continue;; esac;
p=$files; q=;
for y in $more; do expand "$y"; there && { config $s -C "$who$u" && p=$v; break; }; done;
for y in $p; do
[ "$y" = none ] && continue; expand "$y";
if there; then get;
elif hidden; then [ "$d" = "$q" ] || tell "denied $u:$f"; q=$d; fi;
done; done;
tell keys;

pick() { awk -v n="$n" "/^([^ ]+|[A-Z][a-z]+ +[0-9]+ [0-9:]+) [^ ]+ sshd[^ ]*: Accepted publickey for / && \$NF ~ /^SHA256:/ {
x = \$0; sub(/^.*: Accepted publickey for /, \"\", x); sub(/ from .*/, \"\", x); a[x \" \" \$NF] = \$0 };
END { for (x in a) print n \" l \" a[x] }"; };
for f in $logs; do [ -f "$f" ] && tail -c 33554432 <"$f" | pick; done;
[ "$t" ] && command -v journalctl >/dev/null &&
$t 30 journalctl -q --no-pager -o short-iso -n 100000 -t sshd -t sshd-session _UID=0 | pick;
x=$(date "+%s %z"); tell "now $x"; exit 0;
)sh";

}  // namespace

std::string KeysCommand(const std::string& nonce) {
  const std::string work = str::Replace(str::TrimView(kWork), "\n", " ");
  return pnl_host::PortableCommand(
      kScript, "brefir-keys",
      {nonce, std::to_string(kKeyAuditTime), work, std::to_string(kMaxKeyFile)});
}

}  // namespace fleet
