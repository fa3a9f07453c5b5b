#!/usr/bin/env bash
# Fails when a product binary holds test code: the tests' fake machine and failure switches live in
# the test-only library (platform/testing/, namespace platform::fake, and the switches named below),
# so no symbol of a shipped binary may name "fake" (any case) or a switch.
# Usage: scripts/check-no-test-code.sh BINARY...   ($NM: the nm to read them with; default nm)
set -uo pipefail
(($#)) || { echo "usage: $0 BINARY..." >&2; exit 2; }
nm=${NM:-nm}
test_names='fake|FailMovesOf|SetAdministratorOverride'
# Not ours: the C++ runtime's static-initialisation guard (libstdc++'s guard.o, linked statically
# into the Windows binaries) names two of its locals fake_mutex and fake_cond.
runtime_names='_GLOBAL__N_1[0-9]+fake_(mutex|cond)E'
status=0
for binary in "$@"; do
  if ! symbols=$("$nm" -C "$binary" 2>&1) || [ -z "$symbols" ]; then
    echo "check-no-test-code: cannot read the symbols of $binary: $symbols" >&2
    status=1
    continue
  fi
  found=$(grep -Ei "$test_names" <<<"$symbols" | grep -Ev "$runtime_names")
  if [ -n "$found" ]; then
    echo "check-no-test-code: $binary holds test code ($(wc -l <<<"$found") symbols):" >&2
    echo "$found" | sed 's/^/  /' >&2
    status=1
  fi
done
exit $status
