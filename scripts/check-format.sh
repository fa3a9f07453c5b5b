#!/usr/bin/env bash
# Checks that every C++ line changed since the house style came in (the commit that added
# .clang-format) is as clang-format writes it; lines nobody touched since are left as they are.
# Prints what to change and fails when one is not. `scripts/check-format.sh --fix` formats them.
# Usage: scripts/check-format.sh [--fix] [BASE]   (BASE: another commit to compare with)
set -euo pipefail
cd "$(dirname "$0")/.."
fix=
[ "${1:-}" = --fix ] && { fix=1; shift; }
base=${1:-$(git log --diff-filter=A --format=%H -- .clang-format | tail -1)}
if [ -z "$base" ]; then
  echo "check-format: .clang-format is not committed yet: nothing to compare with" >&2
  exit 0
fi
if [ -n "$fix" ]; then
  git clang-format --force --extensions cpp,h "$base" -- . || true
  exit 0
fi
out=$(git clang-format --diff --extensions cpp,h "$base" -- .)
case $out in
  "" | "no modified files to format" | "clang-format did not modify any files") exit 0 ;;
esac
echo "$out"
echo "check-format: the lines above, changed since ${base:0:12}, are not in the house style (.clang-format);"
echo "check-format: scripts/check-format.sh --fix formats them"
exit 1
