#!/usr/bin/env bash
# End to end on a desktop without a system tray (stock GNOME without the AppIndicator extension, played by Xvfb +
# openbox and a session bus): the panel opens as an ordinary window titled "Lumora", which the user closes and
# reopens by starting Lumora again; started with the session (--background) it opens nothing until started again;
# an unknown argument is refused; a second start without a bus leaves the first alone; when a tray appears later
# the icon docks, the window goes and the panel floats under the icon again.
#
#   trayless.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR
#
# Exit status: 0 passed, 1 failed, 77 skipped (no Xvfb). Screenshots stay in ARTIFACT_DIR.
set -uo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)

# shellcheck source=checks.sh
source "$HERE/checks.sh" "$@"

step "desktop without a tray: Xvfb, openbox, a session bus"
start_desktop notray
session_bus "$WORK" || abort "no session bus"

managed() { xprop -id "$1" WM_STATE 2>/dev/null | grep 'window state: Normal' >/dev/null; }
# The window titled Lumora that the window manager manages (the icon docked in a tray is titled Lumora too).
lumora_window() { lumora_window_named Lumora managed; }
no_lumora_window() { ! lumora_window >/dev/null; }
window_back() { lumora_window >/dev/null; }
said_no_tray() { grep -c 'no system tray' "$WORK/lumora.log"; }

step "an argument lumora does not know: a clear line and status 2, nothing started"
bogus_out=$(timeout -k 2 20 "$LUMORA" --bogus 2>&1)
bogus_status=$?
check "status 2 (was $bogus_status)" test "$bogus_status" -eq 2
check "it names the argument and --help (printed: $bogus_out)" \
    bash -c '[[ $(wc -l <<<"$0") -eq 1 && $0 == *"--bogus"* && $0 == *"lumora --help"* ]]' "$bogus_out"

step "started with the session (--background): no window, a line on stderr; starting lumora opens the panel"
start_lumora "$WORK/background.log" "" --background
said_background() { grep -q 'waits in the background' "$WORK/background.log"; }
check "stderr says it waits in the background" wait_until 20 said_background
# Once the bus answers, the start is over: a window it had opened would be mapped by now.
displays_served() { gdbus call --session -d org.lumora.Lumora -o /org/lumora/Lumora \
    -m org.freedesktop.DBus.Properties.Get org.lumora.Lumora1 Displays >/dev/null 2>&1; }
check "the session bus is served" wait_until 20 displays_served
viewable_windows() { lumora_windows | awk '$6 == 1' | wc -l; }
check "no window is shown ($(viewable_windows))" equals 0 viewable_windows
again_out=$(timeout -k 2 20 "$LUMORA" --background 2>&1)
check "started with the session again: status 0, silent, still no window" \
    bash -c '[[ $0 == 0 && -z $1 && $2 == 0 ]]' "$?" "$again_out" "$(viewable_windows)"
timeout -k 2 20 "$LUMORA" >/dev/null 2>&1
check "started from the menu: the panel opens as the window titled Lumora" wait_until 20 window_back
shot 00-opened-after-background
kill "$APP_PID" 2>/dev/null
wait_until 20 bash -c '! kill -0 "$0" 2>/dev/null' "$APP_PID" || abort "lumora did not end on SIGTERM"
wait "$APP_PID" 2>/dev/null
wait_until 10 no_lumora_window || abort "its window outlived it"

step "lumora opens its panel as a window titled Lumora, and says why on stderr"
start_lumora "$WORK/lumora.log"
wait_until 20 lumora_window >/dev/null || abort "no window titled Lumora"
WIN=$(lumora_window)
title_bar() { xprop -id "$1" _NET_FRAME_EXTENTS 2>/dev/null | awk -F'[=,]' '{ exit !($4 + 0 > 0) }'; }
check "an ordinary window: the window manager gives it a title bar" title_bar "$WIN"
read -r WX WY WW WH < <(window_geometry "$WIN")
window_rows() { screenshot "$WORK/rows.png"; read -r WX WY WW WH < <(window_geometry "$WIN"); slider_rows "$WORK/rows.png" "$WX" "$WY" "$WH" | wc -l; }
check "it shows the three displays" wait_until 10 equals 3 window_rows
shot 01-window
check "stderr says there is no tray, once ($(said_no_tray))" equals 1 said_no_tray

step "closing the window leaves lumora running; starting lumora again reopens it"
xdotool windowactivate --sync "$WIN" key alt+F4 2>/dev/null
check "the window closes" wait_until 10 no_lumora_window
check "lumora is still running" running "$APP_PID"
started_again_quietly "the second start"
check "the window is back" wait_until 10 window_back
shot 02-reopened
check "still said once ($(said_no_tray))" equals 1 said_no_tray

step "without a session bus a second start still finds the first (the lock) and exits at once, saying so"
third_out=$(DBUS_SESSION_BUS_ADDRESS="unix:path=$WORK/no-bus" timeout -k 2 20 "$LUMORA" 2>&1)
third_status=$?
check "exit status 0 (was $third_status)" test "$third_status" -eq 0
check "one line saying Lumora runs already (printed: $third_out)" bash -c '[[ $(wc -l <<<"$0") -eq 1 && $0 == *"already running"* ]]' "$third_out"
check "the first one is still running" running "$APP_PID"

step "a tray appears: the icon docks, the window goes, the panel floats under the icon"
session_start_tray "$WORK" || abort "trayer did not start"
check "the sun docks in the new tray" wait_until 20 icon_docked
check "the window titled Lumora is gone" wait_until 10 no_lumora_window
read -r IX IY IW IH < <(tray_icon)
check "a click on the icon opens the panel" open_panel
check "under the icon (y $PY, icon bottom $(( IY + IH )))" test "$PY" -eq $(( IY + IH + 6 ))
check "floating again: not managed by the window manager" bash -c '! xprop -id "$0" WM_STATE 2>/dev/null | grep Normal >/dev/null' "$(panel_id)"
shot 03-tray-arrived
sleep 0.6   # beyond the double-click interval
xdotool click 1
check "a second click closes it" wait_until 10 panel_hidden

step "Quit from the tray menu"
click_icon 3
check "menu shown" wait_until 10 menu_shown
xdotool key q
expect_exit_zero "q in the menu"

finish
