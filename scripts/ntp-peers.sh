#!/bin/sh
# Local NTP peers for the tests and the benchmark, on the loopback only:
#   127.0.0.1:123  chronyd -x at stratum 8 (a real server that never touches this machine's clock)
#   127.0.0.2:123  chronyd -x that admits no client (a silent peer: the request is dropped unanswered)
# Their configuration, PID, drift and log files live in DIR. Stopped by PID, never by name.
# Usage: ntp-peers.sh start DIR | stop DIR
set -eu
action=${1:-}
dir=${2:-}
[ -n "$action" ] && [ -n "$dir" ] || { echo "usage: $0 start|stop DIR" >&2; exit 2; }
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)
chronyd=$(command -v chronyd || echo /usr/sbin/chronyd)

stop_one() {
  pidfile="$dir/$1.pid"
  [ -f "$pidfile" ] || return 0
  pid=$(cat "$pidfile")
  if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
    kill "$pid" 2>/dev/null || true
    i=0
    while kill -0 "$pid" 2>/dev/null && [ $i -lt 50 ]; do sleep 0.1; i=$((i + 1)); done
  fi
  rm -f "$pidfile"
}

start_one() {
  name=$1 address=$2 allow=$3
  stop_one "$name"
  cat >"$dir/$name.conf" <<CONF
local stratum 8
allow $allow
bindaddress $address
port 123
cmdport 0
bindcmdaddress /
pidfile $dir/$name.pid
driftfile $dir/$name.drift
logdir $dir
CONF
  # -x: never adjust the system clock. Root keeps its rights so the files above stay writable.
  "$chronyd" -x -u root -f "$dir/$name.conf" -l "$dir/$name.log"
  i=0
  while [ ! -s "$dir/$name.pid" ] && [ $i -lt 50 ]; do sleep 0.1; i=$((i + 1)); done
  if [ ! -s "$dir/$name.pid" ]; then
    echo "chronyd ($name) did not start on $address:123; see $dir/$name.log" >&2
    cat "$dir/$name.log" >&2 2>/dev/null || true
    echo "If port 123 is taken on this machine, run the tests with scripts/test-all.sh, which then" >&2
    echo "moves them into a network namespace of their own." >&2
    exit 1
  fi
}

case $action in
  start)
    start_one server 127.0.0.1 127.0.0.0/8
    start_one silent 127.0.0.2 192.0.2.0/24   # TEST-NET only: the loopback is never answered
    ;;
  stop)
    stop_one server
    stop_one silent
    ;;
  *) echo "usage: $0 start|stop DIR" >&2; exit 2 ;;
esac
