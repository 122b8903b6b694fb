#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs the real desktops `make test-desktops` starts headless (GNOME Shell with and without the AppIndicator
# extension, KWin with plasmashell, sway with waybar, Xfce's panel with xfwm4), the tools that drive them, and
# what the small pointer client for sway is built from, and weston-terminal, the window of another application
# some scenarios need. Skips what is already present; safe to run again.
# Uses sudo when not run as root; waits for another apt to finish rather than failing.
set -euo pipefail

packages=(
  gnome-shell gnome-shell-extension-appindicator
  kwin-wayland plasma-desktop plasma-workspace kded5 kactivitymanagerd qtwayland5
  sway waybar grim wtype
  xfce4-panel xfwm4 xfconf
  weston xwayland xvfb xdotool x11-utils imagemagick dbus libglib2.0-bin python3-gi util-linux passwd
  libwayland-dev libwayland-bin gcc pkg-config
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "Installing: ${missing[*]}"
$SUDO apt-get -o DPkg::Lock::Timeout=900 update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get -o DPkg::Lock::Timeout=900 install -y -qq --no-install-recommends \
  "${missing[@]}"
