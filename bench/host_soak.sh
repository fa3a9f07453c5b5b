#!/usr/bin/env bash
# chronwarden-host soaking: the Chronwarden provider checking 127.0.0.1 every second, the host's
# sample poll every second, under steady KR2 status traffic (scripts/kr2-load.py, RATE requests a
# second) for SECONDS; every 30 s one line of the host's resident memory, open descriptors,
# threads, drift records and the KR2 replies so far. The machine is the fault suite's
# (tests/faults/fault-lib.sh: namespaces of its own, chronyd -x as reference and as NTP client, a
# machine root under BUILD_DIR/host-soak), stopped by PID at the end.
# Usage: bench/host_soak.sh BUILD_DIR [SECONDS] [RATE]   (default 1200 s, 50 requests a second)
build=${1:?usage: $0 BUILD_DIR [SECONDS] [RATE]}
export SOAK_SECONDS=${SOAK_SECONDS:-${2:-1200}} SOAK_RATE=${SOAK_RATE:-${3:-50}}   # kept across fault_begin's move
seconds=$SOAK_SECONDS rate=$SOAK_RATE
. "$(dirname "$0")/../tests/faults/fault-lib.sh"
FAULT_CHECK_S=1
fault_begin "$build" "$build/host-soak"

lab_wait 30 "the client chronyd synchronized" lab_client_synced "$fault_work/ntp"
fault_start_host
fault_start_load --rate "$rate"
sample() {
  local t=$1 rss fds threads
  rss=$(awk '/^VmRSS/ {print $2}' "/proc/$HOST_PID/status")
  threads=$(awk '/^Threads/ {print $2}' "/proc/$HOST_PID/status")
  fds=$(ls "/proc/$HOST_PID/fd" | wc -l)
  replies=$("$lab_cw" kr2 127.0.0.1 status 2>/dev/null | sed -n 's/^replies sent: *//p' || true)   # none: "-"
  printf '%6s %9s %5s %8s %8s %10s\n' "$t" "$rss" "$fds" "$threads" "$(fault_drift_records)" "${replies:--}"
}
echo "host soak: check interval 1 s, sample poll 1 s, KR2 status $rate/s, $seconds s; $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg)"
printf '%6s %9s %5s %8s %8s %10s\n' "t s" "RSS KiB" fds threads records "KR2 sent"
start=$SECONDS
sample 0
while [ $((SECONDS - start)) -lt "$seconds" ]; do
  sleep 30
  fault_expect_host_alive "during the soak"
  sample $((SECONDS - start))
done
fault_stop_load
echo "load generator: $FAULT_LOAD_SUMMARY"
fault_whole_records >/dev/null
echo "done: the host ran $((SECONDS - start)) s; load now $(cut -d' ' -f1-3 /proc/loadavg)"
