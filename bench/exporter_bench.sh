#!/usr/bin/env bash
# The exporter under load, beside Prometheus' own blackbox exporter in the same run.
#  1. Throughput: ab (apache2-utils) keeps 64 requests in flight for 20,000 probes of one loopback
#     KR2 machine (bench/kr2_fleet), then the same against prometheus-blackbox-exporter probing a
#     loopback TCP port (its tcp_connect module): probes/s, median and p99 of each.
#  2. A fleet scraped as Prometheus scrapes it: a real Prometheus with 1,000 machines of the fleet
#     as targets, every 15 s for SCRAPE_SECONDS (default 65): failed scrapes, the p99 of the
#     scrapes' durations, the exporter's peak RSS and its CPU time per 1,000 probes.
# Bench-only packages: apache2-utils, prometheus-blackbox-exporter (and prometheus).
# Run it as root in a network namespace of its own:
#   unshare -n bash -c 'ip link set lo up; bench/exporter_bench.sh build/linux'
set -euo pipefail
build=$(cd "${1:?usage: $0 BUILD_DIR}" && pwd)
scrape_seconds=${SCRAPE_SECONDS:-65}
if [ "$(ip -o link show | wc -l)" != 1 ]; then
  echo "$0: run this in a network namespace of its own (unshare -n), with only the loopback" >&2
  exit 2
fi
dir=$(mktemp -d /tmp/cw-exporter-bench.XXXXXX)
pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null || true; rm -rf "$dir"; }
trap cleanup EXIT
export CHRONWARDEN_ROOT="$dir/root" CHRONWARDEN_SHM_NAMESPACE="cwexp$$."
mkdir -p "$CHRONWARDEN_ROOT"
hz=$(getconf CLK_TCK)
cpu() { awk '{print $14 + $15}' "/proc/$1/stat"; }
wait_for() { for _ in $(seq 200); do eval "$1" >/dev/null 2>&1 && return 0; sleep 0.05; done; echo "gave up: $1" >&2; return 1; }
ab_row() {   # ab's probes/s, median and p99 (ms)
  ab -q -l -n 20000 -c 64 "$2" >"$dir/ab.out" 2>&1 || { cat "$dir/ab.out"; return 1; }
  awk -v who="$1" '/^Requests per second/ {r = $4} /^Failed requests/ {f = $3} /^Non-2xx responses/ {f += $3} /^ *50%/ {p50 = $2} /^ *99%/ {p99 = $2}
    END {printf "| %s | %.0f | %s ms | %s ms | %s |\n", who, r, p50, p99, f}' "$dir/ab.out"
}
uptime

"$build/tests/kr2_fleet" --count 1000 --threads 2 --list "$dir/list" >"$dir/fleet.out" 2>&1 & pids+=($!)
wait_for "grep -q ready $dir/fleet.out"
"$build/cli/chronwarden" exporter --listen 127.0.0.1:9909 >"$dir/exporter.out" 2>&1 & exporter=$!; pids+=($exporter)
wait_for "grep -q serving $dir/exporter.out"
cat >"$dir/blackbox.yml" <<CONF
modules:
  tcp_connect:
    prober: tcp
    timeout: 1s
CONF
prometheus-blackbox-exporter --config.file="$dir/blackbox.yml" --web.listen-address=127.0.0.1:9115 >"$dir/blackbox.out" 2>&1 & blackbox=$!; pids+=($blackbox)
wait_for "curl -sf http://127.0.0.1:9115/metrics"

echo
echo "| exporter (64 in flight, 20,000 probes) | probes/s | median | p99 | failed or not 200 |"
echo "|---|---:|---:|---:|---:|"
ab_row "chronwarden exporter, KR2 status + identity" "http://127.0.0.1:9909/probe?target=127.1.0.1:9909"
ab_row "blackbox exporter, tcp_connect" "http://127.0.0.1:9115/probe?target=127.0.0.1:9909&module=tcp_connect"
echo "exporter RSS after: $(awk '/^VmRSS/ {print $2}' /proc/$exporter/status) KiB; blackbox: $(awk '/^VmRSS/ {print $2}' /proc/$blackbox/status) KiB"

# The fleet as Prometheus scrapes it.
mkdir -p "$dir/targets"
{ echo "- targets:"; cut -d' ' -f1 "$dir/list" | sed 's/^/    - /'; } >"$dir/targets/chronwarden-fleet.yml"
sed -e 's/^rule_files:/rule_files: []\n#/' -e 's/^  - chronwarden.rules.yml//' "$(dirname "$0")/../prometheus/prometheus.yml" >"$dir/prometheus.yml"
c0=$(cpu $exporter)
prometheus --config.file="$dir/prometheus.yml" --storage.tsdb.path="$dir/data" --web.listen-address=127.0.0.1:9090 \
  --log.level=warn >"$dir/prometheus.out" 2>&1 & pids+=($!)
sleep "$scrape_seconds"
c1=$(cpu $exporter)
q() { curl -s "http://127.0.0.1:9090/api/v1/query" --data-urlencode "query=$1" | python3 -c 'import json,sys; r=json.load(sys.stdin)["data"]["result"]; print(r[0]["value"][1] if r else "0")'; }
# Every sample of the window, as Prometheus stored it: "count zeros p99" of a series set.
samples() {
  curl -s "http://127.0.0.1:9090/api/v1/query" --data-urlencode "query=$1[${scrape_seconds}s]" | python3 -c '
import json, sys
v = sorted(float(x[1]) for r in json.load(sys.stdin)["data"]["result"] for x in r["values"])
print(len(v), sum(1 for x in v if x == 0), v[int(0.99 * (len(v) - 1))] if v else 0)'
}
read -r scrapes failed _ < <(samples 'up{job="chronwarden"}')
read -r _ _ p99 < <(samples 'scrape_duration_seconds{job="chronwarden"}')
down=$(q "count(chronwarden_up == 0)")
echo
echo "Prometheus, 1,000 targets every 15 s for $scrape_seconds s: $scrapes scrapes, failed: $failed, machines down: $down"
awk -v p="$p99" -v d="$((c1 - c0))" -v hz="$hz" -v n="$scrapes" -v rss="$(awk '/^VmRSS/ {print $2}' /proc/$exporter/status)" \
  'BEGIN {printf "p99 scrape duration %.1f ms; exporter CPU per 1,000 probes %.3f s; exporter RSS %d KiB\n", p * 1000, d / hz / n * 1000, rss}'
uptime
