#!/usr/bin/env bash
# The main job: builds the Linux target and runs the product for real in a machine root of its own.
# The time provider module and the host are installed there, a local reference is started when none
# answers (chronyd -x on the loopback: it never touches this machine's clock), a second chronyd -x
# plays this machine's NTP client (the host reads its tracking state as the time service's), and
# chronwarden-host runs the provider with a short check interval. As they happen it shows the
# partner text, each drift record and the KR2 status read back over UDP; the report comes at the end.
# Ctrl-C stops it cleanly.
#
# Usage: scripts/run-main.sh [--duration SECONDS] [--interval SECONDS] [--keep]
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/host-lab.sh

duration=0 interval=20 keep=0
while [ $# -gt 0 ]; do
  case "$1" in
    --duration) duration=${2:?--duration needs seconds}; shift 2 ;;
    --interval) interval=${2:?--interval needs seconds}; shift 2 ;;
    --keep) keep=1; shift ;;
    -h|--help) sed -n '2,10p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "run-main.sh: unknown option '$1' (try --help)" >&2; exit 2 ;;
  esac
done

scripts/install-deps.sh
cmake --preset linux >/dev/null
cmake --build --preset linux -j "$(nproc)" --target chronwarden chronwarden-host w32tmkr
cw=$PWD/build/linux/cli/chronwarden
host=$PWD/build/linux/host/chronwarden-host
module=$(find build/linux -name w32tmkr.cpl -type f | head -1)

root=$(mktemp -d /tmp/chronwarden-main.XXXXXX)
export CHRONWARDEN_ROOT=$root
export CHRONWARDEN_SHM_NAMESPACE="main$$."
# install takes the module and the host program (made the time service, run by Chronwarden's own
# supervisor where no systemd runs) from the build.
export CHRONWARDEN_MODULE=$PWD/$module CHRONWARDEN_HOST=$host CHRONWARDEN_SERVICE_BACKEND=supervisor
mkdir -p "$root/ntp"
echo "== machine root $root"

host_pid="" client_pid="" peers_started=0
cleanup() {
  trap - INT TERM EXIT
  if [ -n "$host_pid" ] && kill -0 "$host_pid" 2>/dev/null; then
    kill -TERM "$host_pid"; wait "$host_pid" 2>/dev/null || true
  fi
  [ -n "$client_pid" ] && kill "$client_pid" 2>/dev/null || true
  [ "$peers_started" = 1 ] && sh scripts/ntp-peers.sh stop "$root/ntp" || true
  drift=$(find "$root" -name drift.kr | head -1)
  if [ -n "$drift" ]; then
    echo "== synchronization summary report"
    "$cw" report "$drift" --utc -o - || true
  fi
  [ "$keep" = 1 ] || rm -rf "$root"
  rm -f "/dev/shm/$CHRONWARDEN_SHM_NAMESPACE"*   # the run's own shared memory and events
}
trap cleanup INT TERM EXIT

# The reference: chronyd -x on 127.0.0.1 unless an NTP server already answers there.
if ! "$cw" ntp query 127.0.0.1 --timeout 500 >/dev/null 2>&1; then
  sh scripts/ntp-peers.sh start "$root/ntp"
  peers_started=1
fi
# This machine's NTP client: chronyd -x following 127.0.0.1, its command socket in the root
# (scripts/host-lab.sh).
lab_cw=$cw
lab_client_start "$root/ntp"
client_pid=$LAB_CLIENT_PID
# Installed and configured as an administrator would: the provider installed, the agent checking
# the local reference, the time service's NTP client on it, every KR2 command allowed (so that the
# drift history can be read back over UDP; the managers stay loopback only).
echo "== chronwarden install; agent set; config set"
"$cw" install
# install started the time service; this job runs the host itself, in the foreground, so that its
# log shows here and it follows the NTP client above.
"$cw" service stop >/dev/null
"$cw" agent set enabled=1 reference=127.0.0.1 warn=1 error=1 --no-apply
"$cw" config set sync_type=NTP ntp_client_enabled=1 ntp_client_input_provider=1 provider_input_provider=1 \
  server1=127.0.0.1 server2= check_interval="$interval" dns_lookups_enabled=0 kr2_prohibited=none --no-apply

echo "== chronwarden-host (check interval ${interval} s)"
"$host" --foreground --poll 10 --chrony-socket "$root/ntp/client.sock" &
host_pid=$!

partner="" seen=0 start=$SECONDS
while kill -0 "$host_pid" 2>/dev/null; do
  sleep 2
  now_partner=$(lab_partner)
  if [ -n "$now_partner" ] && [ "$now_partner" != "$partner" ]; then
    partner=$now_partner
    echo "== partner: $partner"
  fi
  drift=$(find "$root" -name drift.kr | head -1)
  if [ -n "$drift" ]; then
    count=$(( $(stat -c %s "$drift") / 20 ))
    if [ "$count" -gt "$seen" ]; then
      echo "== drift records"
      "$cw" history "$drift" | sed -n "1p;$((seen + 2)),$((count + 1))p"
      seen=$count
      echo "== KR2 status (chronwarden kr2 localhost status)"
      "$cw" kr2 localhost status | grep -E "^(partner|last offset ms|last check|agent start|replies sent|sync successes):" || true
    fi
  fi
  if [ "$duration" -gt 0 ] && [ $((SECONDS - start)) -ge "$duration" ]; then break; fi
done
