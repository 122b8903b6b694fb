#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs the Debian packages Lumora needs to build, test and run, skipping those already present.
# Uses sudo when not run as root. Safe to run again.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  qt6-base-dev qt6-svg-dev libqt6svg6 qt6-wayland
  libudev-dev libsystemd-dev libevdev-dev libxcb-xinput-dev libx11-dev
  umockdev libumockdev-dev libglib2.0-dev libglib2.0-bin nlohmann-json3-dev
  dbus python3-dbusmock udev acl
  qt6-l10n-tools qt6-tools-dev qt6-translations-l10n
  xvfb openbox trayer xdotool imagemagick x11-utils python3-gi qt6ct
  dpkg-dev debhelper fakeroot lintian appstream desktop-file-utils man-db
  xserver-xorg-core xserver-xorg-video-dummy x11-xserver-utils
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "Installing: ${missing[*]}"
$SUDO apt-get -o DPkg::Lock::Timeout=900 update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get -o DPkg::Lock::Timeout=900 install -y -qq --no-install-recommends "${missing[@]}"
