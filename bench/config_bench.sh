#!/usr/bin/env bash
# End-to-end cost of `chronwarden config show`, `config set` (store read, save, chrony reload and
# check) and `resync`, each run as a whole process, against a chronyd -x (never touches the clock)
# whose command socket and sources folder live in a temporary folder. Run it as root inside a
# network namespace of its own:  unshare -n bash -c 'ip link set lo up; bench/config_bench.sh [RUNS]'
set -euo pipefail
runs=${1:-50}
cw=${CHRONWARDEN_BIN:-$(dirname "$0")/../build/linux/cli/chronwarden}
dir=$(mktemp -d)
chmod 700 "$dir"
mkdir -p "$dir/sources.d" "$dir/root"
cat >"$dir/chrony.conf" <<CONF
port 0
cmdport 0
bindcmdaddress $dir/chronyd.sock
pidfile $dir/chronyd.pid
driftfile $dir/drift
sourcedir $dir/sources.d
CONF
/usr/sbin/chronyd -x -u root -f "$dir/chrony.conf" -l "$dir/chronyd.log"
trap 'kill -9 $(cat "$dir/chronyd.pid") 2>/dev/null; rm -rf "$dir"' EXIT
for i in $(seq 50); do [ -S "$dir/chronyd.sock" ] && break; sleep 0.02; done
export CHRONWARDEN_ROOT=$dir/root CHRONWARDEN_SERVICE_BACKEND=supervisor
params='\\System\CurrentControlSet\Services\W32Time\Parameters'
"$cw" reg set "$params" ChronySourcesFile --data "$dir/sources.d/chronwarden.sources" >/dev/null
"$cw" reg set "$params" ChronyCommandSocket --data "$dir/chronyd.sock" >/dev/null
"$cw" config set server1=127.0.0.11 >/dev/null

measure() {   # name, command...: mean wall time per run in ms
  local name=$1; shift
  local start end
  start=$(date +%s%N)
  for i in $(seq "$runs"); do "$@" "$i" >/dev/null 2>&1 || true; done
  end=$(date +%s%N)
  printf '%-44s %8.2f ms\n' "$name" "$(echo "($end - $start) / $runs / 1000000" | bc -l)"
}
show() { "$cw" config show; }
show_json() { "$cw" config show --json; }
set_same() { "$cw" config set server1=127.0.0.11 --no-apply; }
set_changed() { "$cw" config set "server2=127.0.1.$(( $1 % 200 + 1 ))" --no-apply; }
set_apply() { "$cw" config set "server2=127.0.2.$(( $1 % 200 + 1 ))"; }
resync() { "$cw" resync; }
chronyc_sources() { chronyc -n -N -h "$dir/chronyd.sock" sources; }
measure "config show" show
measure "config show --json" show_json
measure "config set, file unchanged (check only)" set_same
measure "config set, file changed (write, reload, check)" set_changed
measure "config set + service notification + resync" set_apply
measure "resync (chronyc burst)" resync
measure "one chronyc call (sources)" chronyc_sources
