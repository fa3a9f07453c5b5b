#!/usr/bin/env bash
# Installs the built Debian packages into a throw-away copy of this machine and checks them, without
# touching the machine itself: in private mount, network and PID namespaces it mounts an overlay of
# "/" (its upper layer on a tmpfs), chroots into it, installs the packages with dpkg (dependencies
# from this machine's own apt cache only: it works offline when they are installed already), runs
# the command, the install/remove round trips and the store's access checks, purges the packages
# and checks that nothing of them is left: files, the system user, the store, a running host.
# No systemd runs inside: the maintainer scripts fall back to Chronwarden's own supervisor.
# Usage (as root): tests/install/deb-install-test.sh [PACKAGE_DIR]   (default build/packages)
set -euo pipefail
cd "$(dirname "$0")/../.."

if [ -z "${CW_INSTALL_TEST_NS:-}" ]; then
  [ "$(id -u)" = 0 ] || { echo "deb-install-test: needs root (mount namespaces, chroot)" >&2; exit 1; }
  debs=$(cd "${1:-build/packages}" && pwd)
  ls "$debs"/chronwarden_*.deb >/dev/null 2>&1 || { echo "deb-install-test: no packages in $debs" >&2; exit 1; }
  work="$PWD/build/packages/install-test"
  rm -rf "$work" && mkdir -p "$work"
  # PID 1 of the new PID namespace is the test: when it ends, whatever it started ends with it.
  status=0
  CW_INSTALL_TEST_NS=1 unshare --mount --net --pid --fork --propagation private \
    "$PWD/tests/install/deb-install-test.sh" "$debs" "$work" || status=$?
  rm -rf "$work"
  exit $status
fi

debs=$1
work=$2
root="$work/root"
failures=0 passes=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
ok() { echo "ok: $*"; passes=$((passes + 1)); }

# Whatever the test started in the chroot (the supervisor's chronwarden-host above all) is ended by
# its process id when the test ends, however it ends.
kill_started() {
  local p comm
  for p in /proc/[0-9]*; do
    comm=$(cat "$p/comm" 2>/dev/null) || continue
    case $comm in chronwarden*) kill -TERM "${p#/proc/}" 2>/dev/null || true ;; esac
  done
}
trap kill_started EXIT

ip link set lo up
mount -t proc proc /proc   # this namespace's processes only
mount -t tmpfs -o size=4g,mode=0755 cw-install-test "$work"
mkdir -p "$work/upper" "$work/work" "$root"
mount -t overlay overlay -o "lowerdir=/,upperdir=$work/upper,workdir=$work/work" "$root"
mount -t proc proc "$root/proc"
mount -t tmpfs -o mode=0755 tmpfs "$root/dev"
for node in null zero full random urandom tty; do
  touch "$root/dev/$node"
  mount --bind "/dev/$node" "$root/dev/$node"
done
mkdir -p "$root/dev/shm" "$root/dev/pts"
mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
mount -t tmpfs -o mode=0755 tmpfs "$root/run"
mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
mkdir -p "$root/tmp/debs"
cp "$debs"/chronwarden_*.deb "$debs"/cockpit-chronwarden_*.deb "$debs"/chronwarden-exporter_*.deb "$root/tmp/debs/"

# A command in the chroot, with a clean environment (as root, as a person would run it).
in_root() {
  chroot "$root" /usr/bin/env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive TERM=dumb "$@"
}
# The same as the host's system user.
as_service() {
  in_root setpriv --reuid=_chronwarden --regid=_chronwarden --init-groups \
    /usr/bin/env CHRONWARDEN_ROOT=/var/lib/chronwarden "$@"
}
expect() {   # expect CODE WHAT COMMAND...: runs COMMAND in the chroot, checks its exit code
  local want=$1 what=$2 got=0
  shift 2
  in_root "$@" >"$work/out" 2>&1 || got=$?
  if [ "$got" = "$want" ]; then ok "$what"; else fail "$what: exit $got, not $want"; sed 's/^/    /' "$work/out"; fi
}

# Start from a machine without Chronwarden: what this machine has of it is hidden in the overlay.
if in_root dpkg-query -W -f='${Status}' chronwarden 2>/dev/null | grep -q installed; then
  in_root dpkg --purge chronwarden-exporter cockpit-chronwarden chronwarden >/dev/null
fi
rm -rf "$root/var/lib/chronwarden" "$root/usr/share/cockpit/chronwarden" "$root/etc/chrony/sources.d/chronwarden.sources"

echo "==== install"
if in_root sh -c 'dpkg -i /tmp/debs/*.deb' >"$work/out" 2>&1; then
  ok "dpkg -i"
else
  echo "dpkg -i left dependencies open; apt-get -f install from this machine's cache:"
  sed 's/^/    /' "$work/out"
  expect 0 "apt-get -f install (offline)" apt-get -f install -y --no-download -o Acquire::Retries=0
fi
cat "$work/out"
for p in chronwarden cockpit-chronwarden chronwarden-exporter; do
  if in_root dpkg-query -W -f='${Status}' "$p" | grep -q "install ok installed"; then ok "$p installed"; else fail "$p is not installed"; fi
done

echo "==== the command"
expect 0 "chronwarden config show" chronwarden config show
grep -Eq '^ *provider_enabled +1' "$work/out" || fail "config show: the provider is not enabled after the install"
grep -Eq '^ *module_present +1' "$work/out" || fail "config show: the module is not present after the install"
expect 0 "chronwarden service status" chronwarden service status
cat "$work/out"
grep -qi running "$work/out" || fail "service status: the time service is not running after the install"
grep -q 'program: /usr/sbin/chronwarden-host --foreground' "$work/out" || fail "service status: not the package's host"
expect 0 "chronwarden --help" chronwarden --help
expect 2 "chronwarden bad command line" chronwarden config --no-such-option
expect 0 "chronwarden-host --help" chronwarden-host --help
expect 0 "man -w chronwarden" man -w chronwarden
grep -q '/usr/share/man/man1/chronwarden.1' "$work/out" || fail "man -w chronwarden: $(cat "$work/out")"
expect 0 "man -w chronwarden-host" man -w 8 chronwarden-host
expect 0 "bash completion" bash -c 'source /usr/share/bash-completion/completions/chronwarden && complete -p chronwarden'
expect 0 "the Cockpit page" test -f /usr/share/cockpit/chronwarden/manifest.json
expect 0 "the exporter's unit" test -f /lib/systemd/system/chronwarden-exporter.service
expect 0 "the exporter's Prometheus examples" test -f /usr/share/doc/chronwarden-exporter/examples/chronwarden.rules.yml
expect 0 "the unit runs the host as _chronwarden" grep -qx 'User=_chronwarden' /lib/systemd/system/chronwarden-host.service
expect 0 "the unit starts /usr/sbin/chronwarden-host" grep -q '^ExecStart=/usr/sbin/chronwarden-host' /lib/systemd/system/chronwarden-host.service
expect 0 "systemd-analyze verify" systemd-analyze verify /lib/systemd/system/chronwarden-host.service /lib/systemd/system/chronwarden-exporter.service
exposure=$(in_root systemd-analyze security --offline=true /lib/systemd/system/chronwarden-host.service 2>/dev/null |
  sed -n 's/.*Overall exposure level for .*: \([0-9.]*\).*/\1/p')
if [ -n "$exposure" ] && awk "BEGIN { exit !($exposure <= 2.5) }"; then ok "exposure $exposure"; else fail "exposure '$exposure' above 2.5"; fi

echo "==== the store belongs to the host's user as well"
in_root stat -c '%n %U:%G %a' /var/lib/chronwarden /var/lib/chronwarden/system32 /var/lib/chronwarden/registry.db \
  /var/lib/chronwarden/system32/drift.kr
[ "$(in_root stat -c '%G %a' /var/lib/chronwarden)" = "_chronwarden 2775" ] || fail "the machine root is not _chronwarden's, setgid"
[ "$(in_root stat -c '%U:%G' /var/lib/chronwarden/system32/drift.kr)" = "_chronwarden:_chronwarden" ] || fail "drift.kr is not _chronwarden's"
[ "$(in_root stat -c '%U:%G %a' /var/lib/chronwarden/registry.db)" = "_chronwarden:_chronwarden 664" ] || fail "registry.db is not _chronwarden's"
expect 0 "in group _chrony" sh -c '! getent group _chrony >/dev/null || id -nG _chronwarden | grep -qw _chrony'
as_service chronwarden reg set "" "Install Test" --data service >"$work/out" 2>&1 && ok "the host's user writes the store" ||
  { fail "the host's user cannot write the store"; cat "$work/out"; }
expect 0 "root writes it again" env CHRONWARDEN_ROOT=/var/lib/chronwarden chronwarden reg set "" "Install Test" --data root
if in_root sh -c 'command -v sqlite3' >/dev/null; then
  db=/var/lib/chronwarden/registry.db
  # Journal files that root's writes leave behind: WAL's -wal and -shm, and a rollback journal.
  # The host keeps the store open: it is stopped while the journal mode changes.
  expect 0 "chronwarden service stop" chronwarden service stop
  expect 0 "root leaves a WAL" sqlite3 -cmd ".filectrl persist_wal 1" "$db" "PRAGMA journal_mode=WAL; CREATE TABLE cw_probe(x); DROP TABLE cw_probe;"
  in_root sh -c "ls -l $db*"
  as_service chronwarden reg set "" "Install Test" --data wal >"$work/out" 2>&1 && ok "the host's user writes through root's WAL" ||
    { fail "the host's user cannot write through root's WAL files"; cat "$work/out"; }
  expect 0 "root leaves a rollback journal" sqlite3 "$db" "PRAGMA journal_mode=PERSIST; CREATE TABLE cw_probe(x); DROP TABLE cw_probe;"
  in_root sh -c "ls -l $db*"
  as_service sqlite3 "$db" "PRAGMA journal_mode=PERSIST; CREATE TABLE cw_probe(x); DROP TABLE cw_probe;" >"$work/out" 2>&1 &&
    ok "the host's user writes through root's rollback journal" ||
    { fail "the host's user cannot write through root's rollback journal"; cat "$work/out"; }
  expect 0 "back to WAL" sqlite3 "$db" "PRAGMA journal_mode=WAL;"
  as_service chronwarden reg set "" "Install Test" --data wal2 >"$work/out" 2>&1 && ok "the host's user writes in WAL again" ||
    { fail "the host's user cannot write in WAL again"; cat "$work/out"; }
  expect 0 "chronwarden service start" chronwarden service start
fi

echo "==== the host as its unit runs it: the system user _chronwarden"
expect 0 "chronwarden service stop" chronwarden service stop
host_log="$root/tmp/host-as-user.log"
as_service timeout --preserve-status -s TERM 6 chronwarden-host --foreground --poll 1 >"$host_log" 2>&1 && host_status=0 || host_status=$?
sed 's/^/    /' "$host_log"
[ "$host_status" = 0 ] && ok "the host ran as _chronwarden and stopped on SIGTERM" || fail "the host as _chronwarden: exit $host_status"
grep -q 'started: 1 time provider(s)' "$host_log" && ok "the host loaded the provider as _chronwarden" ||
  fail "the host as _chronwarden did not load the provider"
grep -Eqi 'denied|cannot|could not' "$host_log" && fail "the host as _chronwarden met a refusal" || ok "the host met no refusal"
expect 0 "the history is still the host's user's" sh -c \
  '[ "$(stat -c %U /var/lib/chronwarden/system32/drift.kr)" = _chronwarden ]'
expect 0 "chronwarden service start" chronwarden service start

echo "==== root follows no link the host's user plants in its folders"
# The host's user may write the store's folders: it replaces the history and the store's journal by
# links to a file of root's alone, then the package is configured again (as an upgrade does).
# Once, the scripts' chown and chmod made the linked file the host's and group-writable.
in_root sh -c 'umask 077 && echo "root only" >/root/cw-secret'
as_service sh -c 'cd /var/lib/chronwarden && rm -f system32/drift.kr registry.db-journal &&
  ln -s /root/cw-secret system32/drift.kr && ln -s /root/cw-secret registry.db-journal' &&
  ok "the host's user planted links" || fail "the host's user could not plant its links"
in_root /var/lib/dpkg/info/chronwarden.postinst configure >"$work/out" 2>&1 || true
sed 's/^/    /' "$work/out"
expect 0 "root's file kept its owner, mode and bytes" sh -c \
  '[ "$(stat -c "%U:%G %a" /root/cw-secret)" = "root:root 600" ] && [ "$(cat /root/cw-secret)" = "root only" ]'
in_root rm -f /root/cw-secret /var/lib/chronwarden/system32/drift.kr /var/lib/chronwarden/registry.db-journal
expect 0 "configured again without the links" /var/lib/dpkg/info/chronwarden.postinst configure
expect 0 "the history is a file of the host's user again" sh -c \
  '[ "$(stat -c "%F %U" /var/lib/chronwarden/system32/drift.kr)" = "regular file _chronwarden" ] ||
   [ "$(stat -c "%F %U" /var/lib/chronwarden/system32/drift.kr)" = "regular empty file _chronwarden" ]'

echo "==== the exporter"
# Started as one command (not through a function, which would run in a shell of its own), so
# that its process id is the exporter's.
chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 \
  chronwarden exporter --listen 127.0.0.1:19909 >"$work/exporter.log" 2>&1 &
exporter=$!
for _ in $(seq 50); do
  in_root curl -sf -o /dev/null http://127.0.0.1:19909/metrics && break
  sleep 0.1
done
expect 0 "the exporter serves /metrics" curl -sf http://127.0.0.1:19909/metrics
grep -q '^chronwarden_exporter_build_info' "$work/out" || fail "/metrics: no chronwarden_exporter_build_info"
expect 0 "the exporter probes this machine's KR2 responder" curl -sf 'http://127.0.0.1:19909/probe?target=127.0.0.1'
grep -q '^chronwarden_up 1' "$work/out" || { fail "/probe: this machine's KR2 responder did not answer"; sed 's/^/    /' "$work/out"; }
kill -TERM "$exporter"
wait "$exporter" && ok "the exporter stopped on SIGTERM" || fail "the exporter's exit: $?"

echo "==== remove and install again"
for round in 1 2; do
  expect 0 "chronwarden remove ($round)" chronwarden remove
  expect 1 "no module after remove ($round)" test -e /var/lib/chronwarden/system32/w32tmkr.cpl
  expect 0 "the module set aside ($round)" test -e /var/lib/chronwarden/system32/w32tmkr.old
  expect 0 "config show after remove ($round)" chronwarden config show
  grep -Eq '^ *provider_enabled +0' "$work/out" || fail "config show: the provider is still enabled after remove"
  expect 0 "chronwarden install ($round)" chronwarden install
  expect 0 "the module is back ($round)" cmp /usr/lib/chronwarden/w32tmkr.cpl /var/lib/chronwarden/system32/w32tmkr.cpl
  expect 0 "config show after install ($round)" chronwarden config show
  grep -Eq '^ *provider_enabled +1' "$work/out" || fail "config show: the provider is not enabled after install"
done
# root's install opened the history again (and made its mode 0644): the host's user still appends.
as_service chronwarden history append /var/lib/chronwarden/system32/drift.kr --variance 1 >"$work/out" 2>&1 &&
  ok "the host's user appends to the history after root's install" ||
  { fail "the host's user cannot append to the history after root's install"; cat "$work/out"; }
as_service chronwarden reg set "" "Install Test" --data after >"$work/out" 2>&1 &&
  ok "the host's user writes the store after root's install" ||
  { fail "the host's user cannot write the store after root's install"; cat "$work/out"; }
expect 0 "the packages' files are intact" dpkg --verify chronwarden cockpit-chronwarden chronwarden-exporter
expect 0 "chronwarden service status" chronwarden service status
grep -qi running "$work/out" || fail "the time service is not running after the round trips"

echo "==== remove the packages (the store stays), then purge"
expect 0 "dpkg --remove" dpkg --remove chronwarden-exporter cockpit-chronwarden chronwarden
expect 0 "the store stays after a remove" test -f /var/lib/chronwarden/registry.db
expect 0 "the history stays after a remove" test -f /var/lib/chronwarden/system32/drift.kr
expect 0 "the user stays after a remove" getent passwd _chronwarden
expect 0 "dpkg --purge" dpkg --purge chronwarden-exporter cockpit-chronwarden chronwarden

echo "==== nothing left"
left=""
for p in /proc/[0-9]*; do   # (a command name is cut to 15 characters: the program's path tells)
  case $(tr '\0' ' ' <"$p/cmdline" 2>/dev/null) in */chronwarden-host*) left+=" ${p#/proc/}" ;; esac
done
[ -z "$left" ] && ok "no chronwarden-host runs" || fail "chronwarden-host still runs after the purge:$left"
expect 2 "no user _chronwarden" getent passwd _chronwarden
expect 2 "no group _chronwarden" getent group _chronwarden
expect 1 "no store" test -e /var/lib/chronwarden
expect 1 "no chrony sources file" test -e /etc/chrony/sources.d/chronwarden.sources
# Every path the packages, their scripts or the test made is in the overlay's upper layer; a
# removed one is a whiteout (a character device 0:0) there. man's cache of formatted pages is
# man-db's (systemd-analyze verify shows the unit's man page; man-db's daily job expires it).
files=$(cd "$work/upper" && find . -path ./var/cache/man -prune -o \( -iname '*chronwarden*' -o -name 'w32tmkr*' -o -name 'drift.kr' \) \
  ! \( -type c -size 0 \) -print | sort)
[ -z "$files" ] && ok "no files left" || { fail "files left:"; echo "$files" | sed 's/^/    /'; }
shm=$(ls -A "$root/dev/shm")
[ -n "$shm" ] && echo "note: shared memory the family's programs made (kept for other programs of the family): $shm"

echo "packages: $passes passed, $failures failed"
[ "$failures" = 0 ]
