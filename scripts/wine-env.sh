#!/bin/sh
# The Wine environment of the cross build's tests, shared by cmake/wine-run, the ctest fixture of
# tests/CMakeLists.txt and scripts/test-all.sh.
# Usage: scripts/wine-env.sh start|stop BUILD_DIR
#
# start (does nothing when it is already up): creates the prefix BUILD_DIR/wineprefix (Mono and
# Gecko left out), starts a virtual display of its own (Xvfb, whatever display number is free) and
# one Wine server for the prefix that stays up, and starts the prefix's background processes on
# that display, away from ctest's pipes: a process that inherits a test's output pipe keeps ctest
# waiting for it, the desktop process keeps the display it started with, and without one no later
# program of the prefix could open a window. The server is started in the caller's network
# namespace (Wine creates sockets in its server), a server of the prefix left from elsewhere ended
# first. The display's number is kept in BUILD_DIR/wine-env/display.
# stop: ends that server and that display (by the process id kept in BUILD_DIR/wine-env).
set -u
action=${1:-} build=${2:-}
[ -n "$action" ] && [ -d "$build" ] || { echo "usage: $0 start|stop BUILD_DIR" >&2; exit 2; }
build=$(cd "$build" && pwd)
state="$build/wine-env"
export WINEPREFIX="$build/wineprefix" WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-"mscoree,mshtml=;winemenubuilder.exe=d"}
mkdir -p "$state"

up() { [ -f "$state/up" ] && [ -f "$state/xvfb.pid" ] && kill -0 "$(cat "$state/xvfb.pid")" 2>/dev/null; }

start() {
  up && return 0
  if [ ! -f "$WINEPREFIX/system.reg" ]; then
    wineboot -i </dev/null >/dev/null 2>&1 9>&- || true
    wineserver -w 9>&-   # the registry is written when the server ends
  fi
  wineserver -k 2>/dev/null 9>&- || true
  rm -f "$state/display"
  setsid Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>"$state/display" </dev/null >/dev/null 2>&1 9>&- &
  echo $! >"$state/xvfb.pid"
  i=0
  while [ ! -s "$state/display" ] && [ $i -lt 100 ]; do sleep 0.1; i=$((i + 1)); done
  [ -s "$state/display" ] || { echo "wine-env: the virtual display did not start" >&2; return 1; }
  DISPLAY=":$(cat "$state/display")"
  export DISPLAY
  setsid wineserver -p </dev/null >/dev/null 2>&1 9>&- || true
  setsid wine cmd /c exit </dev/null >/dev/null 2>&1 9>&- || true
  touch "$state/up"
}

stop() {
  wineserver -k 2>/dev/null 9>&- || true
  [ -f "$state/xvfb.pid" ] && kill "$(cat "$state/xvfb.pid")" 2>/dev/null
  rm -f "$state/up" "$state/xvfb.pid" "$state/display"
  return 0
}

# One caller at a time: ctest runs tests (each through cmake/wine-run) side by side.
exec 9>"$state/lock"
flock 9
case "$action" in
  start) start ;;
  stop) stop ;;
  *) echo "usage: $0 start|stop BUILD_DIR" >&2; exit 2 ;;
esac
