#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# `make demo`: the tray application on the virtual desk (two emulated DDC/CI monitors and a laptop panel).
#
#   demo.sh BUILD_DIR [SCREENSHOT]
#
# In your X session (DISPLAY set and reachable): Lumora's sun appears in your tray, driving the emulated
# monitors; hot-plug them from another terminal with the command printed at start; quit from the tray menu.
# A Lumora already running in your session makes the demo's copy exit at once: quit that one first.
# Without an X session: a virtual desktop (Xvfb + openbox + trayer), a click on the sun, and a screenshot of the
# open panel saved to SCREENSHOT (default BUILD_DIR/demo/lumora-panel.png).
set -uo pipefail

BUILD=$(cd "${1:?usage: demo.sh BUILD_DIR [SCREENSHOT]}" && pwd)
LUMORA=$BUILD/Lumora/lumora
VIRTUAL_DESK=$BUILD/tools/virtual-desk/virtual-desk
SHOT=${2:-$BUILD/demo/lumora-panel.png}
HERE=$(cd "$(dirname "$0")" && pwd)
WORK=$(mktemp -d "${TMPDIR:-/tmp}/lumora-demo.XXXXXX")
CONTROL=$WORK/control

if [[ -n ${DISPLAY:-} ]] && xprop -root _NET_SUPPORTING_WM_CHECK >/dev/null 2>&1; then
    echo "Lumora on the virtual desk, in your session ($DISPLAY): click the sun in your tray."
    echo "Hot-plug from another terminal:"
    echo "  $VIRTUAL_DESK --send $CONTROL unplug card0-HDMI-A-1"
    echo "  $VIRTUAL_DESK --send $CONTROL plug card0-HDMI-A-1"
    echo "Quit from the tray menu (right click) or the panel's Quit button."
    "$VIRTUAL_DESK" --control "$CONTROL" -- "$LUMORA"
    status=$?
    rm -rf "$WORK"
    exit $status
fi

if ! command -v Xvfb >/dev/null 2>&1; then
    echo "demo: no X session and no Xvfb (scripts/install-deps.sh installs it)" >&2
    exit 1
fi
# shellcheck source=../tests/e2e-desktop/desktop-session.sh
source "$HERE/../tests/e2e-desktop/desktop-session.sh"
cleanup() { session_stop; rm -rf "$WORK"; }
trap cleanup EXIT
session_environment "$WORK"
mkdir -p "$(dirname "$SHOT")"

echo "No X session: Lumora on a virtual desktop (Xvfb + openbox + trayer) with the virtual desk."
session_start "$WORK" 1280x800 || { echo "demo: the virtual desktop did not start" >&2; exit 1; }
"$VIRTUAL_DESK" --control "$CONTROL" -- "$LUMORA" >"$WORK/lumora.log" 2>&1 &
session_track $!
wait_until 20 icon_docked || { echo "demo: the sun did not dock in the tray" >&2; exit 1; }
read -r IX IY IW IH < <(tray_icon)
echo "The sun docked in the tray at $IX,$IY; clicking it."
xdotool mousemove $(( IX + IW / 2 )) $(( IY + IH / 2 )) click 1
wait_until 10 panel_shown || { echo "demo: the panel did not open" >&2; exit 1; }
# The panel grows its rows once the displays have been read.
three_rows() { [[ $(panel_rows) -eq 3 ]]; }
wait_until 10 three_rows || echo "demo: fewer rows than displays after 10 s" >&2
xdotool mousemove 640 600
screenshot "$SHOT"
echo "Screenshot of the open panel: $SHOT"
