#!/usr/bin/env bash
# Builds and tests every target: Linux with ASan/UBSan, Linux with ThreadSanitizer (the tests of the
# threads' shared state only), Windows (mingw-w64) under Wine, and the Debian packages.
# Usage: scripts/test-all.sh [PRESET...]   (default: fuzz linux-asan linux-tsan windows packages)
# The plain "linux" preset runs the very tests the ASan/UBSan build runs, which checks more; the
# optimised product is the packages' own build, which the install test runs. By default it is left
# out to keep the whole run within its time (name it to run it too).
# "fuzz" builds the libFuzzer targets and runs each for a few seconds from its committed corpus.
# "packages" builds the Debian packages, checks them with lintian and installs them into an overlay
# of this machine's root (tests/install/deb-install-test.sh); it needs root.
set -euo pipefail
cd "$(dirname "$0")/.."
# Each stage's line says when it began, in seconds since the whole run began (the CI's time budget).
export CW_RUN_START=${CW_RUN_START:-$(date +%s)}
stage() { echo "==== [$(( $(date +%s) - CW_RUN_START ))s] $*"; }
python3 scripts/check-layers.py   # every include runs down the floors (docs/architecture.md), before anything is built
presets=("$@")
((${#presets[@]})) || presets=(fuzz linux-asan linux-tsan windows packages)
# A run keeps to its build tree: temporary files go to a folder of its own, and at the end the
# machine's own places are searched for anything it made or changed there (scripts/leftovers.sh).
start_run() {
  export TMPDIR="$PWD/build/tmp"
  rm -rf "$TMPDIR" && mkdir -p "$TMPDIR"
  marker="$TMPDIR/.run-start"
  touch "$marker"
  sleep 1   # so that what the run makes is newer than the marker, whatever the file system's clock grain
}
check_leftovers() {
  local left
  left=$(scripts/leftovers.sh "$marker")
  if [ -n "$left" ]; then
    echo "==== the run left these outside its own folders (a test touched the machine it runs on):"
    echo "$left"
    status=1
  fi
}
# The packages' install test needs this machine's own users, file owners and mounts: it runs here,
# outside the network namespace below, after the other presets, with a leftover check of its own.
if [ -z "${CW_IN_NETNS:-}" ] && [[ " ${presets[*]} " == *" packages "* ]]; then
  others=()
  for preset in "${presets[@]}"; do [ "$preset" = packages ] || others+=("$preset"); done
  status=0
  if ((${#others[@]})); then
    bash "$PWD/scripts/test-all.sh" "${others[@]}" || status=1
  else
    scripts/install-deps.sh
  fi
  start_run
  stage "packages: build, lintian, install test"
  if [ "$(id -u)" != 0 ]; then
    echo "the packages' install test needs root"
    status=1
  elif ! scripts/build-packages.sh || ! tests/install/deb-install-test.sh build/packages; then
    status=1
  fi
  check_leftovers
  exit $status
fi
# The NTP tests serve on loopback port 123 (chronyd and the tests' own servers). When that port is
# taken on this machine, or may not be bound by this user, everything runs again inside a network
# namespace of its own (only its loopback, brought up) instead of failing.
if [ -z "${CW_IN_NETNS:-}" ]; then
  scripts/install-deps.sh
  if [ "$(id -u)" != 0 ] || [ -n "$(ss -Hlun 'sport = :123' 2>/dev/null)" ]; then
    echo "==== loopback port 123 is not free here: running in a private network namespace"
    # Root keeps its own user (tests that drop to another user need one); others map themselves to root.
    as_root=-r
    [ "$(id -u)" = 0 ] && as_root=
    exec unshare $as_root -n env CW_IN_NETNS=1 bash -c 'ip link set lo up && exec "$0" "$@"' "$PWD/scripts/test-all.sh" "$@"
  fi
fi
start_run
jobs=$(nproc)
status=0
stage "format: the lines changed since the house style came in"
scripts/check-format.sh || status=1
for preset in "${presets[@]}"; do
  if [ "$preset" = packages ]; then
    echo "==== packages: not in a network namespace; run scripts/test-all.sh packages as root"
    status=1
    continue
  fi
  if [ "$preset" = fuzz ]; then
    stage "fuzz: build and run each target briefly"
    scripts/fuzz.sh "${CW_FUZZ_SECONDS:-10}" || status=1
    continue
  fi
  stage "$preset: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  # The product's binaries hold no test code (the fake machine and its switches are the tests' own).
  case $preset in
    linux | linux-asan)
      scripts/check-no-test-code.sh "build/$preset/w32tmkr.cpl" "build/$preset/cli/chronwarden" "build/$preset/host/chronwarden-host" || status=1 ;;
    windows) scripts/check-no-test-code.sh build/windows/w32tmkr.cpl build/windows/cli/chronwarden.exe || status=1 ;;
  esac
  stage "$preset: test"
  if [ "$preset" = windows ]; then
    # The Wine prefix, its server and virtual display are the tests' fixture (scripts/wine-env.sh),
    # started inside this network namespace.
    ctest --preset windows || status=1
    retries="$PWD/build/windows/wine-run-retries.log"
    [ -f "$retries" ] && { echo "Wine starts made again (no output, error status):"; cat "$retries"; rm -f "$retries"; }
  else
    ctest --preset "$preset" || status=1
  fi
done
check_leftovers
stage "end"
exit $status
