#!/usr/bin/env bash
# Builds the Linux target and runs the main job: the precise clock against the wall clocks.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset linux >/dev/null
cmake --build --preset linux -j "$(nproc)" --target chronwarden
build/linux/cli/chronwarden clock --samples 20 "$@"
