#!/usr/bin/env bash
# The Cockpit page in a real browser: cockpit-ws with a local bridge and headless Chromium, in a
# network and host-name namespace of their own (only the loopback; the machine is "localhost"),
# against a machine root of the test's own with chronyd -x on 127.0.0.1 as its NTP server.
# Usage: cockpit-browser-test.sh BUILD_DIR ARTEFACT_DIR
#   BUILD_DIR: the build tree (cli/chronwarden, w32tmkr.cpl); ARTEFACT_DIR: where the screenshots go.
set -euo pipefail
build=$(cd "${1:?usage: $0 BUILD_DIR ARTEFACT_DIR}" && pwd)
artefacts=${2:?usage: $0 BUILD_DIR ARTEFACT_DIR}
source_dir=$(cd "$(dirname "$0")/../.." && pwd)

if [ -z "${CW_BROWSER_NS:-}" ]; then
  exec unshare -n -u env CW_BROWSER_NS=1 bash "$0" "$@"
fi
ip link set lo up
hostname localhost

for need in /usr/lib/cockpit/cockpit-ws /usr/bin/cockpit-bridge /usr/bin/chromium /usr/bin/chromedriver; do
  [ -x "$need" ] || { echo "missing $need (scripts/install-deps.sh installs it)" >&2; exit 1; }
done
/usr/bin/python3 -c "import selenium" || { echo "missing python3-selenium (scripts/install-deps.sh installs it)" >&2; exit 1; }

work="$build/tests/cockpit-browser"
rm -rf "$work"
mkdir -p "$work/root" "$work/home" "$work/config" "$work/runtime" "$artefacts"
chmod 700 "$work/runtime"
export HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config" XDG_CACHE_HOME="$work/home/.cache"
export XDG_DATA_HOME="$work/data" XDG_CONFIG_DIRS="$work/config" XDG_RUNTIME_DIR="$work/runtime"
export CHRONWARDEN_ROOT="$work/root" CHRONWARDEN_NETWORK_ROOT="$work/net"
export CHRONWARDEN_COCKPIT_DIR="$XDG_DATA_HOME/cockpit/chronwarden"
export CHRONWARDEN_MODULE="$build/w32tmkr.cpl" CHRONWARDEN_SERVICE_BACKEND=supervisor
export CHRONWARDEN_HOST="$source_dir/tests/stand-in-service.sh"
export PATH="$build/cli:$PATH" TZ=UTC

ws_pid=""
cleanup() {
  # (set -e holds here too: cockpit-ws ends by the signal, its wait fails, and without the "|| true"
  # the rest of the clean-up never ran, leaving both chronyd running)
  if [ -n "$ws_pid" ]; then kill "$ws_pid" 2>/dev/null || true; wait "$ws_pid" 2>/dev/null || true; fi
  chronwarden service stop >/dev/null 2>&1 || true
  sh "$source_dir/scripts/ntp-peers.sh" stop "$work/ntp" || true
  # The bridge's session starts a D-Bus daemon and an ssh-agent in its runtime folder, which outlive
  # cockpit-ws: whatever still runs in the test's folders ends with the test.
  for p in /proc/[0-9]*; do
    [ "${p#/proc/}" = "$$" ] && continue
    case "$(readlink "$p/cwd" 2>/dev/null)" in "$work"|"$work"/*) kill "${p#/proc/}" 2>/dev/null || true ;; esac
  done
}
trap cleanup EXIT

sh "$source_dir/scripts/ntp-peers.sh" start "$work/ntp"
# The page as `chronwarden install` puts it into the console's package folder (here the user's).
chronwarden install
chronwarden config set sync_type=NTP ntp_client_enabled=1 server1=127.0.0.1 server2= --no-apply >/dev/null
drift="$CHRONWARDEN_ROOT/system32/drift.kr"
for i in 0 1 2 3 4 5 6 7 8 9; do
  chronwarden history append "$drift" --variance 0 --time $((1700000000 + i * 600)) --source 127.0.0.1 >/dev/null
done
# One time source in the agent's list, so that Clear History has something to clear.
chronwarden reg set '\\System\CurrentControlSet\Services\W32Time\TimeProviders\Chronwarden' 'Last Used Time Source' \
  --type binary --data "$(printf '%01008d' 0)7f00000100e1f505" >/dev/null

port=9191
/usr/lib/cockpit/cockpit-ws --local-session=cockpit-bridge --address 127.0.0.1 --port $port >"$work/cockpit-ws.log" 2>&1 &
ws_pid=$!
for _ in $(seq 50); do
  (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null && break
  sleep 0.1
done

status=0
/usr/bin/python3 "$source_dir/tests/browser/cockpit_page_test.py" \
  --url "http://127.0.0.1:$port/cockpit/@localhost/chronwarden/index.html" \
  --ids "$source_dir/resources/resource_ids.h" --artefacts "$artefacts" --work "$work" || status=$?
if [ $status != 0 ]; then
  echo "---- cockpit-ws log"
  cat "$work/cockpit-ws.log"
fi
exit $status
