#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Desktops without an XEmbed tray (Xvfb + openbox, a private session bus). A StatusNotifier host (KDE, GNOME with
# AppIndicator, most Wayland panels; here a python-dbusmock watcher) gives the item no geometry: the panel opens at the pointer, and a click
# on the item while it is shown hides it once, with no flicker (that press is also a press outside the panel). With no
# tray at all (stock GNOME) the panel is a window titled "Lumora", reopened by starting Lumora again; a tray that
# appears later takes the icon.
#   notray.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR
set -uo pipefail
source "$(dirname "$0")/checks.sh" "$@"
step "desktop: Xvfb, openbox, a session bus with a StatusNotifier watcher and host, xev logging every map"
start_desktop notray
session_bus "$WORK" || abort "no session bus"
# The watcher takes every item that registers (logging its name to WORK/items) and says a host is there.
/usr/bin/python3 -m dbusmock -l "$WORK/items" org.kde.StatusNotifierWatcher /StatusNotifierWatcher \
    org.kde.StatusNotifierWatcher >"$WORK/watcher.log" 2>&1 &
HOST=$! && session_track $HOST
timeout 20 gdbus wait --session --timeout 15 org.kde.StatusNotifierWatcher || abort "the StatusNotifier host did not start"
mock() { gdbus call --session -d org.kde.StatusNotifierWatcher -o /StatusNotifierWatcher -m org.freedesktop.DBus.Mock.$1 \
    org.kde.StatusNotifierWatcher "${@:2}" >/dev/null; }
mock AddMethod RegisterStatusNotifierItem s "" "" && mock AddProperties "{'IsStatusNotifierHostRegistered': <true>,
    'ProtocolVersion': <0>, 'RegisteredStatusNotifierItems': <@as []>}" || abort "the watcher took no method"
xev -root -event substructure >"$WORK/maps.log" 2>&1 &
session_track $!
# map_events Map|Unmap ID: how many times the server mapped or unmapped the window so far (the notices a client
# sends the window manager are synthetic, and left out).
map_events() { awk -v kind="$1Notify" -v id="$(printf '0x%x,' "$2")" '$1 == kind { ours = /synthetic NO/; next }
    ours && $4 == id { n++ } { ours = 0 } END { print n + 0 }' "$WORK/maps.log"; }
step "lumora registers its item with the host; one click opens the panel at the pointer"
start_lumora "$WORK/lumora.log"
item() { awk '$2 == "RegisterStatusNotifierItem" { gsub(/"/, "", $3); print $3; exit }' "$WORK/items" 2>/dev/null; }
wait_until 20 eval '[[ -n $(item) ]]' || abort "no item registered"
ITEM=$(item)
check "item $ITEM; no window titled Lumora: there is a tray" bash -c '! grep -q "no system tray" "$0"' "$WORK/lumora.log"
wait_until 10 grep -q Notify "$WORK/maps.log" || abort "xev saw none of lumora's windows"
# click: the press and release, then the host's activation; Lumora has handled it all once its Ping returns.
click() {
    xdotool mousemove 1200 12 click 1
    gdbus call --session --dest "$ITEM" --object-path /StatusNotifierItem --method org.kde.StatusNotifierItem.Activate 1200 12 >/dev/null
    gdbus call --session --dest "$ITEM" --object-path /StatusNotifierItem --method org.freedesktop.DBus.Peer.Ping >/dev/null
}
click
check "shown" wait_until 10 panel_shown
read -r PX PY PW PH < <(panel_geometry)
PANEL=$(panel_id)
check "6 below the pointer, centred on it, kept on screen ($PX $PY)" equals "980 18" echo "$PX $PY"
check "mapped once" wait_until 10 equals 1 map_events Map "$PANEL"
shot 01-sni-open
step "a second click on the item: hidden, once, no flicker; a third opens it, a click elsewhere closes it"
click
check "hidden, unmapped once" wait_until 10 equals 1 map_events Unmap "$PANEL"
xprop -root _NET_SUPPORTED >/dev/null   # a round trip: what lumora sent is in the log by now
check "never mapped again in between" equals 1 map_events Map "$PANEL"
click
check "shown again" wait_until 10 panel_shown
xdotool mousemove 300 500 click 1
check "a click elsewhere hides it" wait_until 10 panel_hidden
click
check "the next click on the item opens it" wait_until 10 panel_shown
quit_from_footer "the footer's Quit"
kill $HOST && wait $HOST
nobody_watches() { ! gdbus call --session -d org.freedesktop.DBus -o / -m org.freedesktop.DBus.GetNameOwner org.kde.StatusNotifierWatcher >/dev/null 2>&1; }
wait_until 10 nobody_watches || abort "the StatusNotifier host stayed"
step "no tray at all: an argument lumora does not know gets a clear line and status 2"
out=$(timeout -k 2 20 "$LUMORA" --bogus 2>&1)
check "status 2, one line naming the argument and --help ($out)" \
    bash -c '[[ $0 == 2 && $(wc -l <<<"$1") -eq 1 && $1 == *"--bogus"* && $1 == *"lumora --help"* ]]' "$?" "$out"
step "started with the session (--background): no window, a line on stderr; starting lumora opens the panel"
start_lumora "$WORK/background.log" "" --background
check "stderr says it waits in the background" wait_until 20 grep -q 'waits in the background' "$WORK/background.log"
# Once the bus answers, the start is over: a window it had opened would be mapped by now.
check "the session bus is served" wait_until 20 listed
viewable_windows() { lumora_windows | awk '$6 == 1' | wc -l; }
check "no window is shown" equals 0 viewable_windows
out=$(timeout -k 2 20 "$LUMORA" --background 2>&1)
check "started with the session again: status 0, silent, still no window" \
    bash -c '[[ $0 == 0 && -z $1 && $2 == 0 ]]' "$?" "$out" "$(viewable_windows)"
timeout -k 2 20 "$LUMORA" >/dev/null 2>&1
window() { lumora_window_named Lumora managed; }
check "started from the menu: the panel opens as the window titled Lumora" wait_until 20 eval "window >/dev/null"
kill "$APP_PID"
wait_until 20 ended "$APP_PID" || abort "lumora did not end on SIGTERM"
wait "$APP_PID"
wait_until 10 eval '! window' || abort "its window outlived it"
step "lumora opens its panel as a window titled Lumora, and says why on stderr, once"
start_lumora "$WORK/lumora.log"
wait_until 20 window >/dev/null || abort "no window titled Lumora"
WIN=$(window)
check "an ordinary window: the window manager gives it a title bar" \
    eval 'xprop -id "$WIN" _NET_FRAME_EXTENTS | awk -F"[=,]" "{ exit !(\$4 + 0 > 0) }"'
window_rows() { local x y w h; screenshot "$WORK/rows.png"; read -r x y w h _ < <(window_geometry "$WIN"); slider_rows "$WORK/rows.png" "$x" "$y" "$h" | wc -l; }
check "it shows the three displays" wait_until 10 equals 3 window_rows
shot 02-window
said_no_tray() { grep -c 'no system tray' "$WORK/lumora.log"; }
check "stderr says there is no tray, once" equals 1 said_no_tray
xdotool windowactivate --sync "$WIN" key alt+F4 2>/dev/null
check "closing the window leaves lumora running" wait_until 10 eval '! window && running $APP_PID'
started_again_quietly "the second start"
check "the window is back; still said once" wait_until 10 eval 'window >/dev/null && [[ $(said_no_tray) == 1 ]]'
step "without a session bus a second start still finds the first (the lock) and exits at once, saying so"
out=$(DBUS_SESSION_BUS_ADDRESS="unix:path=$WORK/no-bus" timeout -k 2 20 "$LUMORA" 2>&1)
check "exit status 0, one line saying Lumora runs already ($out), the first still running" \
    bash -c '[[ $0 == 0 && $(wc -l <<<"$1") -eq 1 && $1 == *"already running"* ]] && kill -0 $2' "$?" "$out" "$APP_PID"
step "a tray appears: the icon docks, the window goes, the panel floats under the icon"
session_start_tray "$WORK" || abort "trayer did not start"
check "the sun docks in the new tray" find_icon 20
check "the window titled Lumora is gone" wait_until 10 eval '! window'
check "a click on the icon opens the panel" open_panel
check "under the icon (y $PY, icon bottom $(( IY + IH )))" test "$PY" -eq $(( IY + IH + 6 ))
check "floating again: not managed by the window manager" eval '! xprop -id "$(panel_id)" WM_STATE | grep -q Normal'
shot 03-tray-arrived
sleep 0.6   # beyond the double-click interval
xdotool click 1
check "a second click closes it" wait_until 10 panel_hidden
quit_from_menu "q in the menu"
finish
