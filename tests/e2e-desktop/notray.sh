#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Desktops without an XEmbed tray: a StatusNotifier host (python-dbusmock's watcher), which gives the item no geometry;
# none at all, where the panel is a window titled "Lumora"; then a tray that appears later takes the icon.
#   notray.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR
set -uo pipefail
source "$(dirname "$0")/checks.sh" "$@"
step "no display server that answers: a line on stderr saying why, status 1; --help and --version on stdout"
# DISPLAY | WAYLAND_DISPLAY | argument | status | stream (1 out, 2 err) | pattern; Qt may add a line to a refusal.
while IFS='|' read -r -u 3 display wayland argument status stream says; do
    env -u DISPLAY -u WAYLAND_DISPLAY ${display:+DISPLAY=$display} ${wayland:+WAYLAND_DISPLAY=$wayland} \
        DBUS_SESSION_BUS_ADDRESS="unix:path=$WORK/no-bus" timeout -k 2 30 "$LUMORA" $argument >"$WORK/1" 2>"$WORK/2"
    got=$? out=$(cat "$WORK/$stream") other=$(cat "$WORK/$(( 3 - stream ))")
    check "DISPLAY=$display WAYLAND_DISPLAY=$wayland $argument: status $got, \"${out%%$'\n'*}\", the other stream \"$other\"" eval \
        '[[ $got == "$status" && $out == $says && -z $other ]] && (( $(grep -c . <<<"$out") <= 2 || ! status ))'
done 3<<'CASES'
|||1|2|lumora: no desktop session here (neither DISPLAY nor WAYLAND_DISPLAY is set)*
:4711|||1|2|lumora: cannot reach the display server at DISPLAY=:4711*
|lumora-test-nowhere||1|2|lumora: cannot reach the display server at WAYLAND_DISPLAY=lumora-test-nowhere*
:4711|lumora-test-nowhere||1|2|lumora: cannot reach the display server at DISPLAY=:4711*
||--help|0|1|Usage: lumora ?--background?*
||-h|0|1|*LUMORA_PROBE=1 lumora*
||--version|0|1|lumora *
CASES
step "desktop: Xvfb, openbox, a session bus with a StatusNotifier watcher and host, xev logging every map"
start_desktop notray
session_bus "$WORK" || abort "no session bus"
# The watcher takes every item that registers (logged to WORK/items) and says a host is there.
/usr/bin/python3 -m dbusmock -l "$WORK/items" org.kde.StatusNotifierWatcher /StatusNotifierWatcher \
    org.kde.StatusNotifierWatcher >"$WORK/watcher.log" 2>&1 & HOST=$! && session_track $HOST
timeout 20 gdbus wait --session --timeout 15 org.kde.StatusNotifierWatcher || abort "the StatusNotifier host did not start"
mock() { gdbus call --session -d org.kde.StatusNotifierWatcher -o /StatusNotifierWatcher -m org.freedesktop.DBus.Mock.$1 \
    org.kde.StatusNotifierWatcher "${@:2}" >/dev/null; }
mock AddMethod RegisterStatusNotifierItem s "" "" && mock AddProperties "{'IsStatusNotifierHostRegistered': <true>,
    'ProtocolVersion': <0>, 'RegisteredStatusNotifierItems': <@as []>}" || abort "the watcher took no method"
xev -root -event substructure >"$WORK/maps.log" 2>&1 & session_track $!
# map_events Map|Unmap ID: how often the server mapped or unmapped the window (not counting synthetic notices).
map_events() { awk -v kind="$1Notify" -v id="$(printf '0x%x,' "$2")" '$1 == kind { ours = /synthetic NO/; next }
    ours && $4 == id { n++ } { ours = 0 } END { print n + 0 }' "$WORK/maps.log"; }
step "lumora registers its item with the host; one click opens the panel at the pointer"
start_lumora "$WORK/lumora.log"
item() { awk '$2 == "RegisterStatusNotifierItem" { gsub(/"/, "", $3); print $3; exit }' "$WORK/items" 2>/dev/null; }
wait_until 20 eval 'ITEM=$(item); [[ -n $ITEM ]]' || abort "no item registered"
check "item $ITEM; no window titled Lumora: there is a tray" bash -c '! grep -q "no system tray" "$0"' "$WORK/lumora.log"
wait_until 10 grep -q Notify "$WORK/maps.log" || abort "xev saw none of lumora's windows"
click() {  # the press and release, then the host's activation; Lumora has handled it all once its Ping returns
    local item=(--session --dest "$ITEM" --object-path /StatusNotifierItem --method) && xdotool mousemove 1200 12 click 1
    gdbus call "${item[@]}" org.kde.StatusNotifierItem.Activate 1200 12 >/dev/null && gdbus call "${item[@]}" org.freedesktop.DBus.Peer.Ping >/dev/null
}
after click "shown, 6 below the pointer, centred on it, kept on screen" "980 18 300" eval 'panel_geometry | cut -d" " -f1-3'
PANEL=$(panel_id)
check "mapped once" wait_until 10 equals 1 map_events Map "$PANEL"
step "a second click on the item: hidden, once, no flicker; a third opens it, a click elsewhere closes it"
click
check "hidden, unmapped once" wait_until 10 equals 1 map_events Unmap "$PANEL"
xprop -root _NET_SUPPORTED >/dev/null   # a round trip: what lumora sent is in the log by now
check "never mapped again in between" equals 1 map_events Map "$PANEL"
after click "shown again" shown panel_state
after "xdotool mousemove 300 500 click 1" "a click elsewhere hides it" hidden panel_state
after click "the next click on the item opens it" shown panel_state
quit_from_footer "the footer's Quit"
kill $HOST && wait $HOST
wait_until 10 eval '! gdbus call --session -d org.freedesktop.DBus -o / -m org.freedesktop.DBus.GetNameOwner \
    org.kde.StatusNotifierWatcher >/dev/null 2>&1' || abort "the StatusNotifier host stayed"
check "no tray at all: an unknown argument gets status 2 and one line naming it and --help" equals "2 1 lumora: unknown argument '--bogus'. Try 'lumora --help'." \
    ran "$LUMORA" --bogus
step "started with the session (--background): no window, a line on stderr; starting lumora opens the panel"
start_lumora "$WORK/background.log" "" --background
check "stderr says it waits in the background" wait_until 20 grep -q 'waits in the background' "$WORK/background.log"
viewable_windows() { lumora_windows | awk '$6 == 1' | wc -l; }
# Once the bus answers, the start is over: a window it had opened would be mapped by now.
check "the session bus is served, and no window is shown" wait_until 20 eval 'listed && (( $(viewable_windows) == 0 ))'
check "started with the session again: status 0, silent, still no window" equals "0 0 |0" \
    eval 'echo "$(ran "$LUMORA" --background)|$(viewable_windows)"'
timeout -k 2 20 "$LUMORA" >/dev/null 2>&1
window() { lumora_window_named Lumora managed; }
check "started from the menu: the panel opens as the window titled Lumora" wait_until 20 eval "window >/dev/null"
kill "$APP_PID" && wait_until 20 ended "$APP_PID" || abort "lumora did not end on SIGTERM"
wait "$APP_PID"; wait_until 10 eval '! window' || abort "its window outlived it"
step "lumora opens its panel as a window titled Lumora, and says why on stderr, once"
start_lumora "$WORK/lumora.log"
wait_until 20 window >/dev/null && WIN=$(window) || abort "no window titled Lumora"
check "an ordinary window: the window manager gives it a title bar" \
    eval 'xprop -id "$WIN" _NET_FRAME_EXTENTS | awk -F"[=,]" "{ exit !(\$4 + 0 > 0) }"'
window_rows() { local x y w h; screenshot "$WORK/rows.png"; read -r x y w h _ < <(window_geometry "$WIN"); slider_rows "$WORK/rows.png" "$x" "$y" "$h" | wc -l; }
check "it shows the three displays" wait_until 10 equals 3 window_rows
said_no_tray() { grep -c 'no system tray' "$WORK/lumora.log"; }
check "stderr says there is no tray, once" equals 1 said_no_tray
xdotool windowactivate --sync "$WIN" 2>/dev/null; wait_until 10 equals "$WIN" xdotool getactivewindow
after "xdotool key alt+F4" "closing the window leaves lumora running" "" eval 'window; running $APP_PID || echo ended'
started_again_quietly "the second start"
check "the window is back; still said once" wait_until 10 eval 'window >/dev/null && [[ $(said_no_tray) == 1 ]]'
check "without a session bus a second start finds the first (the lock): status 0, one line saying so, the first runs on" \
    equals "0 1 lumora: Lumora is already running in this session; its panel opens from its tray icon." \
    eval 'DBUS_SESSION_BUS_ADDRESS="unix:path=$WORK/no-bus" ran "$LUMORA"; running $APP_PID || echo ended'
step "a tray appears: the icon docks, the window goes, the panel floats under the icon"
session_start_tray "$WORK" || abort "trayer did not start"
check "the sun docks in the new tray" find_icon 20
check "the window titled Lumora is gone" wait_until 10 eval '! window'
check "a click on the icon opens the panel" open_panel
check "under the icon (y $PY, icon bottom $(( IY + IH )))" test "$PY" -eq $(( IY + IH + 6 ))
check "floating again: not managed by the window manager" eval '! xprop -id "$(panel_id)" WM_STATE | grep -q Normal'
after "sleep 0.6; xdotool click 1" "a second click (beyond the double-click interval) closes it" hidden panel_state
quit_from_menu "q in the menu"
finish
