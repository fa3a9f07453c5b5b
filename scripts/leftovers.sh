#!/usr/bin/env bash
# What a test run made or changed outside its own folders since MARKER (a file it touched at its
# start): the machine's store (/var/lib/chronwarden), chrony's settings (/etc/chrony), the family's
# shared memory in /dev/shm, run-time files in /run, and in /tmp outside the run's own temporary
# folder ($TMPDIR) whatever is named as this project's programs, tests and tools name their files
# (other programs of the machine, the Wine and X servers among them, keep their own names there). One path per line;
# nothing when the run kept to itself.
# Usage: scripts/leftovers.sh MARKER
set -uo pipefail
marker=${1:?usage: $0 MARKER}
{
  [ -e /var/lib/chronwarden ] && find /var/lib/chronwarden -newer "$marker"
  [ -e /etc/chrony ] && find /etc/chrony -newer "$marker"
  find /dev/shm -mindepth 1 -maxdepth 1 -newer "$marker" \( -name '*kairtim*' -o -name 'cw*' -o -name '*chronwarden*' \)
  find /run -mindepth 1 -maxdepth 2 -newer "$marker" \( -name '*chronwarden*' -o -name '*kairtim*' -o -name 'cw-*' \)
  find /tmp -mindepth 1 -maxdepth 1 -newer "$marker" ! -path "${TMPDIR:-/nonexistent}" \( -name 'cw*' -o -name '*chronwarden*' \
    -o -name 'kr2*' -o -name 'ntp*' -o -name 'tmp.*' -o -name '*.kr' -o -name '*.db' -o -name 'registry*' -o -name 'drift*' \
    -o -name 'exporter*' -o -name 'prometheus*' -o -name 'gtest*' -o -name '*kairtim*' \)
} 2>/dev/null | sort -u
