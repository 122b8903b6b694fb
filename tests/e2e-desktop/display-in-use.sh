#!/usr/bin/env bash
# StepDisplayInUse and SetDisplayInUse end to end: the tray application on the virtual desk, on an X server whose
# monitors are laid out like the desk's connectors (Xorg with the dummy driver: the built-in panel eDP-1 on the
# left, the DELL on DP-1 in the middle, the LG on HDMI-A-1 on the right, and DP-3 below the panel for a monitor
# plugged in later without DDC/CI), with a private session bus. The calls are made as a desktop shortcut makes them
# (gdbus); the window the user works in is an ordinary window moved from monitor to monitor, and what reaches the
# monitors and the backlight is read on the desk.
#
#   display-in-use.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR
#
# Exit status: 0 passed, 1 failed, 77 skipped (no Xorg with the dummy driver on this machine, or not root).
set -uo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)

# shellcheck source=checks.sh
source "$HERE/checks.sh" "$@"
# shellcheck source=monitors-session.sh
source "$HERE/monitors-session.sh"
# shellcheck source=bus-calls.sh
source "$HERE/bus-calls.sh"

DELL=card0-DP-1
LG=card0-HDMI-A-1
E=org.lumora.Lumora1.Error
LISTED="the displays are 103 (DELL U2720Q), 110 (LG HDR 4K), 95 (Built-in Display)."
# Brightness and power of both monitors and the backlight: what a refused call must leave alone.
values() { desk_state | awk '{ NF--; print }'; }
monitors() { echo "$(desk_value brightness "$DELL") $(desk_value brightness "$LG")"; }
listed() { [[ $(client displays 2>/dev/null | wc -l) -eq 3 ]]; }

window_gone() { ! xwininfo -id "$WINDOW" >/dev/null 2>&1; }
# The on-screen display (Lumora's own on an X11 desktop: 320 x 64, unmanaged): "x y" while shown.
osd_at() { lumora_windows | awk '$4 == 320 && $5 == 64 && $6 == 1 {print $2, $3; exit}'; }
osd_gone() { [[ -z $(osd_at) ]]; }
# osd_pixel FILE X Y: "r g b" of the OSD's pixel X Y in a screenshot FILE.
osd_pixel() { pixel_column "$1" $(( OSD_X + $2 )) $(( OSD_Y + $3 )) $(( OSD_Y + $3 )) | awk '{print $2, $3, $4}'; }
dark() { read -r r g b <<<"$1"; (( r < 60 && g < 60 && b < 60 )); }
light() { read -r r g b <<<"$1"; (( r > 200 && g > 200 && b > 200 )); }
grey() { read -r r g b <<<"$1"; (( r > 60 && r < 150 )); }

step "desktop: Xorg (dummy) with eDP-1, DP-1, HDMI-1 side by side and DP-3 below, openbox, trayer, a session bus"
monitors_session_start "$WORK" 6400 2520 || abort "Xorg did not start"
monitors_set eDP-1=1920x1200+0+0 DP-1=2560x1440+1920+0 HDMI-1=1920x1080+4480+0 DP-3=1920x1080+0+1440 ||
    abort "xrandr could not lay out the monitors"
session_start_tray "$WORK" || abort "trayer did not start"
session_bus "$WORK" || abort "no session bus"
pass "display $DISPLAY: $(xrandr --listmonitors | tail -n +2 | awk '{print $2}' | tr -d '+*' | tr '\n' ' ')"

step "lumora on the virtual desk"
start_lumora "$WORK/lumora.log"
wait_until 20 icon_docked || abort "the sun never docked in the tray"
wait_until 20 listed || abort "Displays never listed the three displays"
pass "DELL at $(desk_value brightness "$DELL"), LG at $(desk_value brightness "$LG")," \
    "backlight at $(desk_value backlight intel_backlight)"

step "the window on the DELL, the pointer on the LG: bad arguments are refused and change nothing"
xdotool mousemove 5000 500
work_at 2300 300 || abort "no window on the DELL"
BEFORE=$(desk_state)
SHOWN_BEFORE=$(client displays)
check "StepDisplayInUse by 2: OutOfRange" fails call StepDisplayInUse 2 \
    "$E.OutOfRange: A step must be a fraction from -1 to 1 (0.0625 is a sixteenth, as a brightness key steps), not 2."
check "StepDisplayInUse by -1.5: OutOfRange" fails call StepDisplayInUse -1.5 "$E.OutOfRange"
check "StepDisplayInUse by nan: NotFinite" fails call StepDisplayInUse nan "$E.NotFinite"
check "SetDisplayInUse 1.5: OutOfRange" fails call SetDisplayInUse 1.5 \
    "$E.OutOfRange: The brightness must be a fraction from 0 to 1 (0.5 is 50 %), not 1.5."
check "SetDisplayInUse -0.1: OutOfRange" fails call SetDisplayInUse -0.1 "$E.OutOfRange"
check "SetDisplayInUse inf: NotFinite" fails call SetDisplayInUse inf "$E.NotFinite"
check "SetDisplayInUse with a string: InvalidArgs" fails timeout -k 2 20 dbus-send --session --print-reply \
    --dest=org.lumora.Lumora /org/lumora/Lumora org.lumora.Lumora1.SetDisplayInUse string:0.5 \
    "org.freedesktop.DBus.Error.InvalidArgs: SetDisplayInUse takes (d), a brightness fraction, not (s)."
check "monitors, backlight and the desk's transaction count as before ($BEFORE)" equals "$BEFORE" desk_state
check "Displays as before" equals "$SHOWN_BEFORE" client displays

step "StepDisplayInUse(0.0625) with the window on the DELL and the pointer on the LG: the DELL, a sixteenth up"
call StepDisplayInUse 0.0625 >/dev/null
check "Displays shows the DELL at 0.5625 at once" equals "0.5625 true" shown 103
check "the DELL at 56 on the wire (50 + 6.25)" wait_until 10 equals 56 desk_value brightness "$DELL"
check "the LG untouched at 70" equals 70 desk_value brightness "$LG"
check "the backlight untouched at 9600" equals 9600 desk_value backlight intel_backlight
# 1920 + (2560 - 320) / 2 across; 1440 - 64 - a tenth of 1440 down.
check "the on-screen display shows on the DELL's screen, low in its middle" wait_until 10 equals "3040 1232" osd_at
check "the window the user works in keeps the focus" equals "$WINDOW" xdotool getactivewindow
read -r OSD_X OSD_Y < <(osd_at)
shot 02-osd-on-the-dell
if [[ -n ${OSD_X:-} && -f $ARTIFACTS/02-osd-on-the-dell.png ]]; then
    # The bar runs from 60 to 306 across, 44 to 50 down; filled to 56 % (x 198).
    check "its box is dark" dark "$(osd_pixel "$ARTIFACTS/02-osd-on-the-dell.png" 30 6)"
    check "its bar is filled at 40 %" light "$(osd_pixel "$ARTIFACTS/02-osd-on-the-dell.png" 158 47)"
    check "... and not at 90 %" grey "$(osd_pixel "$ARTIFACTS/02-osd-on-the-dell.png" 281 47)"
fi
check "it goes by itself" wait_until 10 osd_gone

step "SetDisplayInUse(0.3) with the window moved onto the LG and the pointer on the DELL: the LG"
xdotool mousemove 3000 700
work_at 4700 200 || abort "no window on the LG"
call SetDisplayInUse 0.3 >/dev/null
check "the LG at 30" wait_until 10 equals 30 desk_value brightness "$LG"
check "the DELL still at 56" equals 56 desk_value brightness "$DELL"

step "the window mostly on the LG (540 of its 900 pixels across): StepDisplayInUse(-0.0625) steps the LG"
work_at 4120 200 || abort "no window across the DELL and the LG"
call StepDisplayInUse -0.0625 >/dev/null
check "the LG at 24 (30 - 6.25)" wait_until 10 equals 24 desk_value brightness "$LG"
check "the DELL still at 56" equals 56 desk_value brightness "$DELL"

step "the window on the built-in panel: its backlight, as the panel's slider would"
work_at 300 300 || abort "no window on the panel"
call SetDisplayInUse 0.25 >/dev/null
check "the backlight at a quarter (4800 of 19200)" wait_until 10 equals 4800 desk_value backlight intel_backlight
call StepDisplayInUse -0.0625 >/dev/null
check "a sixteenth down: 3600" wait_until 10 equals 3600 desk_value backlight intel_backlight
check "the monitors untouched (DELL 56, LG 24)" equals "56 24" monitors

step "the window closed, nothing to read: the pointer decides"
kill "$WINDOW_PID" 2>/dev/null
wait_until 10 window_gone || abort "the window did not close"
call StepDisplayInUse -0.0625 >/dev/null
check "the DELL, under the pointer, at 50" wait_until 10 equals 50 desk_value brightness "$DELL"
xdotool mousemove 5500 900
call StepDisplayInUse 0.0625 >/dev/null
check "the LG, under the pointer now, at 30" wait_until 10 equals 30 desk_value brightness "$LG"

step "the pointer on a monitor plugged in without DDC/CI: NotAdjustable, and nothing changes"
desk add 0 '{"name":"DP-3","connectorId":120}' >/dev/null || abort "the desk added no DP-3"
xdotool mousemove 900 2000
BEFORE=$(values)
check "StepDisplayInUse: NotAdjustable" fails call StepDisplayInUse 0.0625 \
    "$E.NotAdjustable: Display 120, the display in use, is not one Lumora can adjust; $LISTED"
check "SetDisplayInUse: NotAdjustable" fails call SetDisplayInUse 0.8 "$E.NotAdjustable"
check "monitors and backlight as before ($BEFORE)" equals "$BEFORE" values
check "Displays still lists the three displays" listed

step "every display unplugged: NoDisplayInUse, and nothing changes"
for connector in card0-eDP-1 card0-DP-1 card0-HDMI-A-1 card0-DP-3; do
    desk unplug "$connector" >/dev/null || fail "the desk did not unplug $connector"
done
BEFORE=$(values)
check "StepDisplayInUse: NoDisplayInUse" fails call StepDisplayInUse 0.0625 \
    "$E.NoDisplayInUse: There is no display in use: no connected display is shown on the desktop."
check "SetDisplayInUse: NoDisplayInUse" fails call SetDisplayInUse 0.5 "$E.NoDisplayInUse"
check "monitors and backlight as before ($BEFORE)" equals "$BEFORE" values

step "Quit; the desk's log"
xdotool mousemove 10 700
read -r IX IY IW IH < <(tray_icon) || abort "no icon"
xdotool mousemove $(( IX + IW / 2 )) $(( IY + IH / 2 )) click 3
if ! wait_until 20 menu_shown; then
    # A machine that stalls for many seconds: keep the screen, and click once more, as a user would.
    shot zz-no-menu
    xdotool mousemove $(( IX + IW / 2 )) $(( IY + IH / 2 )) click 3
fi
check "menu shown" wait_until 20 menu_shown
xdotool key q
expect_exit_zero "q in the menu"
check "the virtual desk saw no violation" bash -c '! grep -qi violation "$0"' "$WORK/lumora.log"

finish
