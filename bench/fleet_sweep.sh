#!/usr/bin/env bash
# One `chronwarden monitor` sweep of a large fleet on the loopback: N machines served by
# bench/kr2_fleet (one socket bound to every address, replies built at start, two threads), each
# sweep asking all N for status and identity at once. Prints, per fleet size, each run's sweep time
# (as the monitor reports it), the machines that answered, the process's wall time and peak RSS,
# and the RSS per machine between the smallest and the largest fleet.
# Run it as root in a network namespace of its own:
#   unshare -n bash -c 'ip link set lo up; bench/fleet_sweep.sh build/linux [RUNS] [SIZES...]'
set -euo pipefail
build=$(cd "${1:?usage: $0 BUILD_DIR [RUNS] [SIZES...]}" && pwd)
runs=${2:-5}
shift $(( $# > 1 ? 2 : 1 ))
sizes=("$@")
((${#sizes[@]})) || sizes=(1000 10000)
if [ "$(ip -o link show | wc -l)" != 1 ]; then
  echo "$0: run this in a network namespace of its own (unshare -n), with only the loopback" >&2
  exit 2
fi
dir=$(mktemp -d /tmp/cw-fleet-sweep.XXXXXX)
fleet_pid=
cleanup() { [ -n "$fleet_pid" ] && kill "$fleet_pid" 2>/dev/null; rm -rf "$dir"; }
trap cleanup EXIT
export CHRONWARDEN_ROOT="$dir/root" CHRONWARDEN_SHM_NAMESPACE="cwsweep$$."
mkdir -p "$CHRONWARDEN_ROOT"
uptime
declare -A rss
for n in "${sizes[@]}"; do
  "$build/tests/kr2_fleet" --count "$n" --threads 2 --list "$dir/list" >"$dir/fleet.out" 2>&1 &
  fleet_pid=$!
  for _ in $(seq 200); do grep -q ready "$dir/fleet.out" && break; sleep 0.05; done
  mapfile -t hosts < <(cut -d' ' -f1 "$dir/list")
  for r in $(seq "$runs"); do
    /usr/bin/time -f "%e %M" -o "$dir/time" "$build/cli/chronwarden" monitor "${hosts[@]}" --json --timeout 2000 >"$dir/sweep.json" || true
    read -r wall kib <"$dir/time"
    summary=$(tail -c 80 "$dir/sweep.json" | grep -o '"answered": [0-9]*, "sweep_ms": [0-9.]*')
    printf '%6d machines  run %d  %s  wall %s s  peak RSS %s KiB\n' "$n" "$r" "$summary" "$wall" "$kib"
    rss[$n]=$kib
  done
  kill "$fleet_pid"; wait "$fleet_pid" 2>/dev/null || true; fleet_pid=
done
if ((${#sizes[@]} > 1)); then
  first=${sizes[0]} last=${sizes[-1]}
  awk -v a="${rss[$first]}" -v b="${rss[$last]}" -v n="$first" -v m="$last" \
    'BEGIN {printf "peak RSS per machine (%d to %d machines): %.0f bytes\n", n, m, (b - a) * 1024 / (m - n)}'
fi
uptime
