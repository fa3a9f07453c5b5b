#!/usr/bin/env bash
# What a test run made or changed outside its own folders since MARKER (a file it touched at its
# start): the machine's store (/var/lib/chronwarden), chrony's settings (/etc/chrony), the family's
# shared memory in /dev/shm, run-time files in /run, and anything in /tmp outside the run's own
# temporary folder ($TMPDIR; the Wine server's and the X server's own socket folders excepted). One path per line;
# nothing when the run kept to itself.
# Usage: scripts/leftovers.sh MARKER
set -uo pipefail
marker=${1:?usage: $0 MARKER}
{
  [ -e /var/lib/chronwarden ] && find /var/lib/chronwarden -newer "$marker"
  [ -e /etc/chrony ] && find /etc/chrony -newer "$marker"
  find /dev/shm -mindepth 1 -maxdepth 1 -newer "$marker" \( -name '*kairtim*' -o -name 'cw*' -o -name '*chronwarden*' \)
  find /run -mindepth 1 -maxdepth 2 -newer "$marker" \( -name '*chronwarden*' -o -name '*kairtim*' -o -name 'cw-*' \)
  find /tmp -mindepth 1 -maxdepth 1 -newer "$marker" ! -name '.wine-*' ! -name 'wine-*' ! -name '.X*' ! -name '.ICE-unix' \
    ! -path "${TMPDIR:-/nonexistent}" ! -path "${TMPDIR:-/nonexistent}/*"
} 2>/dev/null | sort -u
