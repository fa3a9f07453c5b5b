#!/bin/sh
# Idle cost of chronwarden-host with the Chronwarden provider loaded and checking every minute (its
# agent's check interval), the host's sample poll every second,
# side by side with chronyd idling on the same machine in the same run: CPU seconds per hour (user +
# system, from /proc/PID/stat), resident memory, and the wake-ups of the host's threads (context
# switches per hour, per thread name; the status block's event waiter should show none) and of all
# of them together, per second.
# chronyd runs with -x (never touches the clock), no sources, its command socket in the run's folder;
# everything else of the host lives in a machine root of its own. Stopped by PID.
# Usage: bench/host_idle.sh BUILD_DIR [SECONDS]   (default 120 s)
set -eu
build=$(cd "${1:?usage: $0 BUILD_DIR [SECONDS]}" && pwd)
seconds=${2:-120}
dir=$(mktemp -d /tmp/cw-host-idle.XXXXXX)
chronyd=$(command -v chronyd || echo /usr/sbin/chronyd)
hz=$(getconf CLK_TCK)

cat >"$dir/chrony.conf" <<CONF
port 0
cmdport 0
bindcmdaddress $dir/chronyd.sock
pidfile $dir/chronyd.pid
driftfile $dir/chronyd.drift
CONF
"$chronyd" -x -u root -f "$dir/chrony.conf" 2>"$dir/chronyd.err"
sleep 1
cpid=$(cat "$dir/chronyd.pid")

export CHRONWARDEN_ROOT="$dir/root" CHRONWARDEN_SHM_NAMESPACE="cwbench$$."
mkdir -p "$CHRONWARDEN_ROOT/system32"
cp "$build/w32tmkr.cpl" "$CHRONWARDEN_ROOT/system32/"
key='\\System\CurrentControlSet\Services\W32Time\TimeProviders\Chronwarden'
"$build/cli/chronwarden" reg set "$key" Enabled --type dword --data 1 >/dev/null
"$build/cli/chronwarden" reg set "$key" DllName --data w32tmkr.cpl >/dev/null
"$build/cli/chronwarden" reg set "$key" SpecialPollInterval --type dword --data 60 >/dev/null
"$build/host/chronwarden-host" --poll 1 --chrony-socket "$dir/chronyd.sock" >"$dir/host.out" 2>&1 &
hpid=$!
trap 'kill -TERM $hpid "$cpid" 2>/dev/null || true' EXIT
sleep 2   # start-up done (the precise clock settles, the agent runs)

cpu() { awk '{print $14 + $15}' "/proc/$1/stat"; }
rss() { awk '/^VmRSS/ {print $2}' "/proc/$1/status"; }
switches() {
  for t in /proc/$1/task/*; do
    printf '%s %s %s\n' "${t##*/}" "$(awk '/ctxt_switches/ {s += $2} END {print s}' "$t/status")" "$(cat "$t/comm" | tr ' ' _)"
  done | sort
}
h0=$(cpu $hpid); c0=$(cpu $cpid); switches $hpid >"$dir/sw0"
sleep "$seconds"
h1=$(cpu $hpid); c1=$(cpu $cpid); switches $hpid >"$dir/sw1"

per_hour() { awk -v d="$1" -v s="$seconds" -v hz="$hz" 'BEGIN {printf "%.2f", d / hz * 3600 / s}'; }
echo "over $seconds s:"
printf '%-18s %10s %10s\n' program "cpu s/h" "rss KiB"
printf '%-18s %10s %10s\n' chronwarden-host "$(per_hour $((h1 - h0)))" "$(rss $hpid)"
printf '%-18s %10s %10s\n' chronyd "$(per_hour $((c1 - c0)))" "$(rss $cpid)"
echo "host threads: wake-ups per hour"
join "$dir/sw0" "$dir/sw1" | awk -v s="$seconds" '{w = ($4 - $2); all += w; printf "  %-8s %-16s %8.0f\n", $1, $3, w * 3600 / s}
  END {printf "all threads: %.2f wake-ups per second\n", all / s}'

kill -TERM $hpid; wait $hpid || true
kill -TERM "$cpid" 2>/dev/null || true
rm -f /dev/shm/cwbench$$.*
rm -rf "$dir"
