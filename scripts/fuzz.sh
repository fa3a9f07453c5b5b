#!/usr/bin/env bash
# Builds the libFuzzer targets and runs each for SECONDS (default 20) from its committed corpus.
# Usage: scripts/fuzz.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
# A 16 MB free-memory quarantine (ASan's default is 256 MB) still catches a use after free within
# one input and the next many, and spares each input the page faults of recycling a huge pool.
export ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=16}
# The targets that reach the registry or shared memory do it in a machine root of the run's own.
export CHRONWARDEN_ROOT="$PWD/build/fuzz/machine-root" CHRONWARDEN_SHM_NAMESPACE="cwfuzz$$."
mkdir -p "$CHRONWARDEN_ROOT"
shift || true
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"
targets=("$@")
if ((${#targets[@]} == 0)); then
  for f in fuzz/*_fuzz.cpp; do [ -e "$f" ] && targets+=("$(basename "$f" .cpp)"); done
fi
for t in "${targets[@]}"; do
  corpus="fuzz/corpus/$t"
  work="build/fuzz/corpus/$t"
  mkdir -p "$work"
  echo "==== fuzz $t for ${seconds}s"
  args=("$work")
  [ -d "$corpus" ] && args+=("$corpus")
  "build/fuzz/fuzz/$t" -max_total_time="$seconds" -print_final_stats=0 "${args[@]}" 2>&1 | tail -n 3
done
