#!/usr/bin/env bash
# Builds the Debian packages (chronwarden, cockpit-chronwarden, chronwarden-exporter) from a copy
# of the tree in build/packages/chronwarden, so that the tree itself stays clean, then checks them
# with lintian: any error or warning that debian/*.lintian-overrides does not explain fails.
# The packages land in build/packages/. Usage: scripts/build-packages.sh
set -euo pipefail
cd "$(dirname "$0")/.."
out="$PWD/build/packages"
src="$out/chronwarden"
rm -rf "$src" && mkdir -p "$src"
rm -f "$out"/*.deb "$out"/*.buildinfo "$out"/*.changes
# The tracked files and the new ones not ignored (what a commit would hold), as they are now.
git ls-files -z --cached --others --exclude-standard |
  tar --null -T - --ignore-failed-read -cf - 2>/dev/null | tar -xf - -C "$src"
echo "==== packages: dpkg-buildpackage"
(cd "$src" && DEB_BUILD_OPTIONS="parallel=${CW_PACKAGE_JOBS:-2} nocheck" dpkg-buildpackage -b -us -uc)
ls -l "$out"/*.deb
echo "==== packages: lintian"
lintian --fail-on error,warning --no-tag-display-limit "$out"/chronwarden_*.changes
