#!/usr/bin/env bash
# Installs the Debian packages Quillon needs to build and test, quietly and
# only when missing. Sourced by run.sh and test-all.sh.
set -euo pipefail

QUILLON_BUILD_PACKAGES=(
  build-essential cmake pkg-config ccache
  libplist-dev libxml2-dev libglib2.0-dev libsecret-1-dev libcanberra-dev
  libgtk-3-dev libx11-dev libssl-dev libcurl4-openssl-dev
  libgtk-4-dev libadwaita-1-dev
)
QUILLON_TEST_PACKAGES=(
  libgtest-dev libgmock-dev libbenchmark-dev
  dbus dbus-daemon dbus-x11 python3-dbusmock python3-aiosmtpd
  gnome-keyring libsecret-tools xvfb xdotool x11-utils libglib2.0-bin procps openssl util-linux
  clang-14 libclang-rt-14-dev
  python3-pyatspi at-spi2-core appstream
)

quillon_missing_packages() {
  local missing=()
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
  done
  echo "${missing[@]:-}"
}

quillon_install_packages() {
  local missing
  missing=$(quillon_missing_packages "$@")
  [ -z "${missing// /}" ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "quillon: these Debian packages are missing: $missing" >&2
    echo "quillon: run this command as root (or install them with: sudo apt-get install $missing)" >&2
    return 1
  fi
  echo "quillon: installing $missing"
  export DEBIAN_FRONTEND=noninteractive
  if ! { apt-get update -qq && apt-get install -y -qq --no-install-recommends $missing; } >/tmp/quillon-apt.log 2>&1; then
    echo "quillon: apt-get could not install: $missing (see /tmp/quillon-apt.log)" >&2
    tail -n 20 /tmp/quillon-apt.log >&2
    return 1
  fi
}
