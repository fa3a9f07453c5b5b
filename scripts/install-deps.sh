#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need (as root; skipped when all are there).
set -euo pipefail
packages=(
  cmake ninja-build g++ gcc pkg-config git
  googletest libbenchmark-dev libsqlite3-dev sqlite3
  clang libclang-rt-14-dev clang-format
  g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64
  wine wine64 xvfb xauth msitools wixl
  chrony ntpsec-ntpdate iproute2 util-linux procps
  libsystemd-dev dbus
  imagemagick python3
  libcairo2-dev fonts-dejavu-core x11-apps
  nlohmann-json3-dev libmicrohttpd-dev prometheus systemd
  cockpit-ws cockpit-bridge chromium chromium-driver python3-selenium
  debhelper dpkg-dev fakeroot lintian bash-completion man-db adduser ccache
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
