#!/usr/bin/env bash
# End to end with a StatusNotifier host (KDE Plasma, GNOME with AppIndicator, most Wayland panels), played by a
# small watcher + host of our own on a private session bus under Xvfb + openbox. Such a host gives the item no
# geometry: the panel opens at the pointer, and a click on the item while the panel is shown hides it, once,
# without the panel flickering back (the press of that click is also a press outside the panel).
#
#   sni.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR MAP_LOG
#
# Exit status: 0 passed, 1 failed, 77 skipped (no Xvfb). Screenshots stay in ARTIFACT_DIR.
set -uo pipefail

MAP_LOG=$4
HERE=$(cd "$(dirname "$0")" && pwd)

# shellcheck source=checks.sh
source "$HERE/checks.sh" "$@"

command -v gdbus >/dev/null 2>&1 || abort "gdbus is missing (scripts/install-deps.sh installs it)"

step "desktop: Xvfb, openbox, a session bus with a StatusNotifier watcher and host"
start_desktop notray
session_bus "$WORK" || abort "no session bus"
/usr/bin/python3 "$HERE/sni-host.py" "$WORK/items" >"$WORK/sni-host.log" 2>&1 &
session_track $!
wait_until 10 test -s "$WORK/items.ready" || abort "the StatusNotifier host did not start"
map_log_start

step "lumora registers its item with the host"
start_lumora "$WORK/lumora.log"
wait_until 20 test -s "$WORK/items" || abort "no item registered"
ITEM=$(head -1 "$WORK/items")
pass "item $ITEM"
check "no window titled Lumora: there is a tray" bash -c '! grep -q "no system tray" "$0"' "$WORK/lumora.log"

# click X Y: what a person's click on the item does: the press and release, then the host's activation.
click()
{
    xdotool mousemove "$1" "$2" click 1
    gdbus call --session --dest "$ITEM" --object-path /StatusNotifierItem \
        --method org.kde.StatusNotifierItem.Activate "$1" "$2" >/dev/null
    # Lumora has handled the activation and everything it sent to the display before this returns.
    gdbus call --session --dest "$ITEM" --object-path /StatusNotifierItem \
        --method org.freedesktop.DBus.Peer.Ping >/dev/null
}
ITEM_X=1200
ITEM_Y=12

step "one click: the panel opens at the pointer"
click "$ITEM_X" "$ITEM_Y"
check "shown" wait_until 10 panel_shown
read -r PX PY PW PH < <(panel_geometry)
PANEL_ID=$(panel_id)
check "6 below the pointer (y $PY)" test "$PY" -eq $(( ITEM_Y + 6 ))
check "centred on the pointer, kept on screen (x $PX)" test "$PX" -eq $(( 1280 - 300 ))
check "mapped once" wait_until 10 equals 1 map_events map "$PANEL_ID"
shot 01-sni-open

step "a second click on the item: hidden, once, no flicker"
click "$ITEM_X" "$ITEM_Y"
check "hidden" wait_until 10 panel_hidden
check "unmapped once" wait_until 10 equals 1 map_events unmap "$PANEL_ID"
xprop -root _NET_SUPPORTED >/dev/null   # a round trip: what lumora sent is in the log by now
check "never mapped again in between (maps: $(map_events map "$PANEL_ID"))" equals 1 map_events map "$PANEL_ID"
shot 02-sni-closed

step "a third click opens it again; a click elsewhere closes it"
click "$ITEM_X" "$ITEM_Y"
check "shown again" wait_until 10 panel_shown
xdotool mousemove 300 500 click 1
check "a click elsewhere hides it" wait_until 10 panel_hidden
click "$ITEM_X" "$ITEM_Y"
check "and the next click on the item opens it" wait_until 10 panel_shown

step "the footer's Quit ends lumora"
quit_from_footer "Quit"

finish
