#!/usr/bin/env bash
# End to end on a virtual X11 desk: the real lumora binary on the virtual desk's emulated monitors, docked in a
# real tray (Xvfb + openbox + trayer), driven with xdotool like a person would, checked through the window
# system, the pixels of screenshots, the emulated monitors' state and their transaction log.
#
#   run.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR UPDATE_PLUGIN PRIVATE_LIBDIR MAP_LOG
#
# UPDATE_PLUGIN is a test update plugin and PRIVATE_LIBDIR the private library directory relative to the
# executable's directory: a copy of lumora is also run with the plugin installed beside it, in a directory only
# root can change (loaded) and in one others may write to (not loaded). MAP_LOG is the map-log tool.
# Exit status: 0 passed, 1 failed, 77 skipped (no Xvfb on this machine). Screenshots stay in ARTIFACT_DIR.
set -uo pipefail

UPDATE_PLUGIN=${4:-}
PRIVATE_LIBDIR=${5:-}
MAP_LOG=${6:-}
HERE=$(cd "$(dirname "$0")" && pwd)

# shellcheck source=checks.sh
source "$HERE/checks.sh" "$@"

step "desktop: Xvfb, openbox, trayer, a session bus"
start_desktop
session_bus "$WORK" || abort "no session bus"

step "start lumora on the virtual desk (default desk: DP-1 and HDMI-A-1 monitors, eDP-1 panel)"
start=$(now_ms)
start_docked "$WORK/lumora.log"
pass "icon at ${IX},${IY} ${IW}x${IH}, docked after $(( $(now_ms) - start )) ms"
shot 01-docked

step "a second lumora asks the first to show its panel (session bus) and exits quietly"
started_again_quietly "the second instance"
check "the first one shows its panel" wait_until 10 panel_shown
check "the first one is still docked" icon_docked
check "the first one is still running" running "$APP_PID"
read -r PX PY PW PH < <(panel_geometry)
check "the panel opens under the icon (y $PY, icon bottom $(( IY + IH )))" test "$PY" -eq $(( IY + IH + 6 ))
check "the panel has the keyboard focus" wait_until 10 equals "$(panel_id)" xdotool getwindowfocus
xdotool key Escape
check "Escape hides it" wait_until 10 panel_hidden

step "left click on the icon opens the panel under it"
open_panel || abort "no panel after a click on the icon"
# Rows appear once the refresh of the opening has read the monitors.
wait_until 10 equals 3 panel_rows
read -r PX PY PW PH < <(panel_geometry)
expected_x=$(( IX + IW / 2 - 150 ))
(( expected_x > 1280 - 300 )) && expected_x=$(( 1280 - 300 ))
(( expected_x < 0 )) && expected_x=0
check "panel is 300 wide (was $PW)" test "$PW" -eq 300
check "panel top is 6 below the icon (y $PY, icon bottom $(( IY + IH )))" test "$PY" -eq $(( IY + IH + 6 ))
check "panel centred under the icon, kept on screen (x $PX, expected $expected_x)" test "$PX" -eq "$expected_x"
shot 02-panel-open
mapfile -t ROWS < <(slider_rows "$ARTIFACTS/02-panel-open.png" "$PX" "$PY" "$PH")
check "one row per emulated display: 3 sliders (found ${#ROWS[@]}: ${ROWS[*]})" test "${#ROWS[@]}" -eq 3
(( ${#ROWS[@]} >= 2 )) || abort "no rows to work with"

step "drag the first slider (DP-1) from 80% down to 30%"
y=${ROWS[0]}
xdotool mousemove "$(groove_x 80)" "$y" mousedown 1
for f in 75 70 65 60 55 50 45 40 35 30; do
    xdotool mousemove "$(groove_x "$f")" "$y"
    sleep 0.03
done
xdotool mouseup 1
# The monitor settles on the newest value once the write loop has caught up.
settled() { local a b; a=$(desk_value brightness card0-DP-1); sleep 0.3; b=$(desk_value brightness card0-DP-1); [[ $a == "$b" && $a -le 40 ]]; }
wait_until 10 settled
DRAGGED=$(desk_value brightness card0-DP-1)
check "DP-1 brightness follows the drag to about 30 (is $DRAGGED)" test "$DRAGGED" -ge 22 -a "$DRAGGED" -le 38
shot 03-dragged
check "HDMI-A-1 untouched at 70" equals 70 desk_value brightness card0-HDMI-A-1

step "power button of the first row: standby, then on again at the kept brightness"
shot 04-before-power
read -r POWER_X POWER_Y < <(power_button "$y")
xdotool mousemove "$POWER_X" "$POWER_Y" click 1
check "DP-1 in standby (D6 = 04)" wait_until 10 equals 4 desk_value power card0-DP-1
check "the panel stays up after a click in it" panel_shown
shot 05-standby
# As if the monitor had lost its brightness in standby: only the wake's own write brings the kept one back.
desk brightness card0-DP-1 99 >/dev/null
xdotool click 1
check "DP-1 on again (D6 = 01)" wait_until 10 equals 1 desk_value power card0-DP-1
check "DP-1 written back to the kept brightness $DRAGGED" wait_until 10 equals "$DRAGGED" desk_value brightness card0-DP-1
shot 06-woken

step "hot-plug: unplug HDMI-A-1, its row goes; plug it in, its row comes back"
desk unplug card0-HDMI-A-1 >/dev/null
check "two rows after the unplug" wait_until 10 equals 2 panel_rows
shot 07-unplugged
desk plug card0-HDMI-A-1 >/dev/null
check "three rows after the plug" wait_until 10 equals 3 panel_rows
shot 08-plugged

step "Alt+Tab leaves the panel up; a click in another window hides it and that window gets its click"
xmessage -print -buttons "clicked:0" -geometry +80+400 "another application" >"$WORK/xmessage.out" 2>&1 &
XMESSAGE_PID=$!
session_track "$XMESSAGE_PID"
wait_until 10 bash -c 'xdotool search --onlyvisible --name "^xmessage$" >/dev/null' || fail "xmessage did not appear"
# The new window has no focus yet when the panel is shown; the panel does not take focus either.
check "panel still shown after another window appeared" panel_shown
xdotool key alt+Tab
sleep 0.3
check "panel still shown after Alt+Tab" panel_shown
shot 09-alt-tab
XM=$(xdotool search --onlyvisible --name '^xmessage$' | head -1)
read -r MX MY _ MH < <(window_geometry "$XM")
# The button sits at the bottom left of xmessage's window.
xdotool mousemove $(( MX + 20 )) $(( MY + MH - 12 )) click 1
check "panel hidden by the click in the other window" wait_until 10 panel_hidden
check "the other window got its click" wait_until 10 grep -q clicked "$WORK/xmessage.out"
shot 10-dismissed

step "keyboard: the panel takes the focus, Tab reaches the first slider, arrows and Page keys step it, Escape gives the focus back"
xmessage -geometry +80+400 "focused application" >"$WORK/xmessage2.out" 2>&1 &
session_track $!
wait_until 10 bash -c 'xdotool search --onlyvisible --name "^xmessage$" >/dev/null' || fail "xmessage did not appear"
OTHER=$(xdotool search --onlyvisible --name '^xmessage$' | head -1)
xdotool windowactivate --sync "$OTHER" 2>/dev/null
check "the other application has the focus" wait_until 10 equals "$OTHER" xdotool getwindowfocus
open_panel || abort "no panel for the keyboard"
check "the panel has the keyboard focus" wait_until 10 equals "$(panel_id)" xdotool getwindowfocus
xdotool mousemove 640 700
# The first control of the first row (DP-1's power button) has the focus; Tab moves on to its slider.
KEYED=$(desk_value brightness card0-DP-1)
xdotool key Tab
for n in 1 2 3; do
    xdotool key Right
    check "Right $n: DP-1 at $(( KEYED + n ))" wait_until 10 equals $(( KEYED + n )) desk_value brightness card0-DP-1
done
xdotool key Page_Down
# A sixteenth down from KEYED + 3 percent, as the slider rounds it.
PAGED=$(awk -v v="$KEYED" 'BEGIN { printf "%d", (v + 3) - 6.25 + 0.5 }')
check "Page Down: DP-1 a sixteenth lower, at $PAGED" wait_until 10 equals "$PAGED" desk_value brightness card0-DP-1
check "HDMI-A-1 untouched by the keys" equals 70 desk_value brightness card0-HDMI-A-1
shot 10b-keyboard
xdotool key Escape
check "Escape hides the panel" wait_until 10 panel_hidden
check "the focus is back on the other application" wait_until 10 equals "$OTHER" xdotool getwindowfocus

step "tooltips show although the panel is never the active window"
open_panel || abort "no panel for the tooltip"
mapfile -t ROWS < <(screenshot "$WORK/tip.png"; slider_rows "$WORK/tip.png" "$PX" "$PY" "$PH")
xdotool windowactivate --sync "$OTHER" 2>/dev/null
wait_until 10 equals "$OTHER" xdotool getwindowfocus
# Over the first slider's groove, right of its handle. A hand never rests quite still: a tooltip waits for the
# pointer to stop, and a pointer that came to rest while the panel was losing the focus gets one more nudge.
hover_tooltip()
{
    local x=$1 y=$2 nudge
    for nudge in 0 1 0 1 0; do
        xdotool mousemove $(( x + nudge )) "$y"
        wait_until 2 tooltip_shown && return 0
    done
    return 1
}
check "a tooltip window appears over the slider" hover_tooltip $(( PX + 240 )) "${ROWS[0]:-$(( PY + 80 ))}"
shot 10c-tooltip
xdotool mousemove 640 700
xdotool click 1
check "closed by a click elsewhere" wait_until 10 panel_hidden
sleep 0.6   # beyond the double-click interval

step "the icon toggles: open, and a second click closes"
click_icon
check "opens" wait_until 10 panel_shown
sleep 0.6   # beyond the double-click interval, so that the next press is a fresh click
xdotool click 1
check "closes" wait_until 10 panel_hidden
sleep 0.6
# Three quick clicks arrive as a click, a double click and a click: three toggles, the panel ends up shown.
xdotool click --repeat 3 --delay 120 1
check "a double click counts as a click (three quick clicks leave it open)" wait_until 10 panel_shown
sleep 0.6
xdotool click 1
check "closes again" wait_until 10 panel_hidden

step "About Lumora from the menu: its whole title shows"
click_icon 3
wait_until 10 menu_shown || abort "no menu"
read -r NX NY NW NH < <(menu_geometry)
# "About Lumora" is the first item.
xdotool mousemove $(( NX + 40 )) $(( NY + 12 )) click 1
about_shown() { lumora_window_named "About Lumora" >/dev/null; }
check "a window titled About Lumora" wait_until 10 about_shown
ABOUT=$(lumora_window_named "About Lumora")
read -r _ _ AW _ < <(window_geometry "$ABOUT")
check "About is wide enough for its title (width $AW)" test "${AW:-0}" -ge 380
shot 10d-about
xdotool windowactivate --sync "$ABOUT" key Escape 2>/dev/null
about_gone() { ! lumora_window_named "About Lumora" >/dev/null; }
check "About closes" wait_until 10 about_gone

step "right click: the status menu; Quit ends lumora with status 0"
click_icon 3
check "menu shown" wait_until 10 menu_shown
check "right click did not open the panel" panel_hidden
shot 11-menu
read -r NX NY NW NH < <(menu_geometry)
check "menu opens 4 below the icon (y $NY)" test "$NY" -eq $(( IY + IH + 4 ))
# "Quit Lumora" is the last item.
xdotool mousemove $(( NX + 40 )) $(( NY + NH - 14 )) click 1
expect_exit_zero "Quit"

step "the emulated monitors' log"
if [[ -s $WORK/desk.jsonl ]]; then
    cp "$WORK/desk.jsonl" "$ARTIFACTS/desk.jsonl"
    sets() { grep '"request":"set"' "$WORK/desk.jsonl" | grep "\"connector\":\"$1\"" | grep "\"code\":\"$2\"" | sed 's/.*"value":\([0-9]*\).*/\1/'; }
    mapfile -t power_sets < <(sets card0-DP-1 0xD6 | uniq)
    check "DP-1 got D6 04 then D6 01 (got ${power_sets[*]})" test "${power_sets[*]}" == "4 1"
    last_brightness=$(sets card0-DP-1 0x10 | tail -1)
    check "the newest brightness written to DP-1 is the last one keyed, $PAGED (was $last_brightness)" test "$last_brightness" == "$PAGED"
else
    fail "the virtual desk wrote no log"
fi
check "the virtual desk saw no violation" bash -c '! grep -qi violation "$0"' "$WORK/lumora.log"

step "an update plugin in a private library directory only root can change: Check for Updates reaches it; q quits"
if [[ -n ${UPDATE_PLUGIN:-} && -f $UPDATE_PLUGIN ]]; then
    mkdir -p "$WORK/install/bin" "$WORK/install/bin/$PRIVATE_LIBDIR"
    cp "$LUMORA" "$WORK/install/bin/lumora"
    cp "$UPDATE_PLUGIN" "$WORK/install/bin/$PRIVATE_LIBDIR/liblumora-update.so"
    chmod 755 "$WORK/install/bin/$PRIVATE_LIBDIR"
    chmod 644 "$WORK/install/bin/$PRIVATE_LIBDIR/liblumora-update.so"
    export LUMORA_TEST_UPDATE_LOG="$WORK/update.log"
    start_with_plugin() { LUMORA="$WORK/install/bin/lumora" start_docked "$WORK/lumora-with-plugin.log"; }
    if (( EUID == 0 )); then
        start_with_plugin
        check "the plugin made its controller at start, started, without delegates" wait_until 10 grep -qx "create 1 0" "$WORK/update.log"
        click_icon 3
        check "menu shown" wait_until 10 menu_shown
        shot 12-menu-with-updater
        read -r NX NY NW NH < <(menu_geometry)
        # "Check for Updates…" is the second item: its text is dark now, grey when disabled (11-menu.png).
        xdotool mousemove $(( NX + 40 )) $(( NY + 32 )) click 1
        check "Check for Updates reached the plugin once" wait_until 10 bash -c '[[ $(grep -cx "check 0" "$0") == 1 ]]' "$WORK/update.log"
        click_icon 3
        check "menu shown again" wait_until 10 menu_shown
        xdotool key q
        expect_exit_zero "q in the menu"
        check "still exactly one controller made" test "$(grep -c '^create' "$WORK/update.log")" -eq 1
    else
        echo "   note: not root here, so no directory of this run is root's: the loading case is left out"
    fi

    step "the same plugin in a directory others may write to is not loaded"
    rm -f "$WORK/update.log"
    chmod 777 "$WORK/install/bin/$PRIVATE_LIBDIR"
    start_with_plugin
    check "no controller made" test ! -s "$WORK/update.log"
    click_icon 3
    check "menu shown" wait_until 10 menu_shown
    xdotool key q
    expect_exit_zero "q in the menu"
else
    fail "no test update plugin given"
fi

finish
