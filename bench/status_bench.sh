#!/usr/bin/env bash
# Wall time of one clock status check over six NTP servers (`chronwarden status`: the Client page's
# check as the command line runs it, the target and the six rows asked at once, no pauses, the
# verdict) and of `chronwarden server test` (that check, then the machine's own NTP server), beside
# `ntpdate -q` of the same six servers, in one run. The servers are six chronyd -x (never touch the clock) on
# 127.0.0.1-6. Run it as root inside a network namespace of its own:
#   unshare -n bash -c 'ip link set lo up; bench/status_bench.sh [RUNS]'
set -euo pipefail
runs=${1:-20}
cw=${CHRONWARDEN_BIN:-$(dirname "$0")/../build/linux/cli/chronwarden}
dir=$(mktemp -d)
chmod 700 "$dir"
mkdir -p "$dir/root"
pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; rm -rf "$dir"; }
trap cleanup EXIT
for i in 1 2 3 4 5 6; do
  cat >"$dir/s$i.conf" <<CONF
local stratum 8
allow 127.0.0.0/8
bindaddress 127.0.0.$i
port 123
cmdport 0
bindcmdaddress /
pidfile $dir/s$i.pid
driftfile $dir/s$i.drift
CONF
  /usr/sbin/chronyd -x -u root -f "$dir/s$i.conf" -l "$dir/s$i.log"
  for _ in $(seq 50); do [ -s "$dir/s$i.pid" ] && break; sleep 0.05; done
  pids+=("$(cat "$dir/s$i.pid")")
done
export CHRONWARDEN_ROOT=$dir/root CHRONWARDEN_SERVICE_BACKEND=supervisor
"$cw" config set server1=127.0.0.1 server2=127.0.0.2 server3=127.0.0.3 server4=127.0.0.4 server5=127.0.0.5 \
  server6=127.0.0.6 --no-apply >/dev/null

measure() {   # name, command...: median and worst wall time per run in ms, and the last output
  local name=$1; shift
  local times=() start end out
  for _ in $(seq "$runs"); do
    start=$(date +%s%N)
    out=$("$@" 2>&1 || true)
    end=$(date +%s%N)
    times+=($(( (end - start) / 1000000 )))
  done
  local sorted
  sorted=$(printf '%s\n' "${times[@]}" | sort -n)
  printf '%-34s median %5d ms  worst %5d ms  (%d runs)\n' "$name" \
    "$(echo "$sorted" | sed -n "$(( (runs + 1) / 2 ))p")" "$(echo "$sorted" | tail -1)" "$runs"
  echo "$out" | tail -2 | sed 's/^/    /'
}
measure "chronwarden status (6 servers)" "$cw" status
# The server test asks the machine's own NTP server: the machine "localhost" (a machine root under a
# network root of the run's own), whose name reaches the chronyd on 127.0.0.1.
mkdir -p "$dir/net/localhost"
CHRONWARDEN_ROOT=$dir/net/localhost "$cw" config set server1=127.0.0.1 server2=127.0.0.2 server3=127.0.0.3 \
  server4=127.0.0.4 server5=127.0.0.5 server6=127.0.0.6 --no-apply >/dev/null
CHRONWARDEN_NETWORK_ROOT=$dir/net measure "chronwarden server test (6 servers)" "$cw" server test --machine localhost
measure "ntpdate -q (6 servers)" ntpdate -q 127.0.0.1 127.0.0.2 127.0.0.3 127.0.0.4 127.0.0.5 127.0.0.6
