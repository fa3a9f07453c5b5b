#!/bin/sh
# The KR2 responder under a flood, beside chronyd's NTP replies (bench/kr2_flood_bench.cpp): starts
# chronyd -x on 127.0.0.1:123 with its files in a temporary folder (scripts/ntp-peers.sh: local
# stratum 8, loopback clients only, no command port, no rate limit; it also starts its silent peer
# on 127.0.0.2, which is not asked), runs the program, stops both by PID and removes the folder.
# Run it in a network namespace of its own:
#   unshare -n bash -c 'ip link set lo up; bench/kr2_flood.sh build/linux [SECONDS] [WINDOW]'
set -eu
build=${1:?usage: $0 BUILD_DIR [SECONDS] [WINDOW]}
shift
if [ "$(ip -o link show | wc -l)" != 1 ]; then
  echo "$0: run this in a network namespace of its own (unshare -n), with only the loopback" >&2
  exit 2
fi
here=$(cd "$(dirname "$0")/.." && pwd)
dir=$(mktemp -d "${TMPDIR:-/tmp}/cw-kr2-flood.XXXXXX")
trap 'sh "$here/scripts/ntp-peers.sh" stop "$dir"; rm -rf "$dir"' EXIT
sh "$here/scripts/ntp-peers.sh" start "$dir"
# Two sources that are not loopback, for the rate limit's phase (loopback is never limited).
ip addr add 192.0.2.1/24 dev lo 2>/dev/null || echo "no 192.0.2.0/24 on lo: the rate limit's phase is skipped"
uptime
"$build/bench/kr2_flood_bench" "$@"
uptime
