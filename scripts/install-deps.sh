#!/usr/bin/env bash
# Installs every Debian package the build, the tests, the tools and the demo need. Safe to run again.
set -euo pipefail
PACKAGES=(
  cmake g++ ninja-build pkg-config git
  libgtest-dev libgmock-dev
  libglib2.0-dev libcurl4-openssl-dev libssl-dev libarchive-dev libplist-dev liburiparser-dev
  nettle-dev libacl1-dev liblzma-dev libzstd-dev liblz4-dev libbz2-dev zlib1g-dev libxml2-dev
  openssl ca-certificates 7zip p7zip-full libarchive-tools curl valgrind clang libclang-rt-14-dev
  python3 procps locales nodejs
  xvfb xauth python3-pyqt5.qtwebkit libqt5webkit5 chromium firefox-esr libnss3-tools
)
missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
