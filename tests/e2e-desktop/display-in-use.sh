#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# The display in use on monitors laid out like the desk's connectors (Xorg's dummy driver: the built-in panel eDP-1,
# the DELL on DP-1 and the LG on HDMI-A-1 side by side, DP-3 below the panel for a monitor plugged in later without
# DDC/CI), the window the user works in moved from one to another: StepDisplayInUse and SetDisplayInUse as a shortcut
# calls them, then the brightness keys through the real key service (lumora-keys on a private system bus with the
# package's policy and stand-ins for logind and polkit) on the desk's keyboards, read back from the desk's log.
#   display-in-use.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
LUMORA_KEYS=${LUMORA_KEYS:-$(cd "$(dirname "$1")/.." && pwd)/LumoraKeys/lumora-keys}
source "$HERE/checks.sh" "$@"
source "$HERE/monitors-session.sh"
# The desk, which outlives lumora in the last step, ends once told to.
before_cleanup() { touch "$WORK/stop"; }
DELL=card0-DP-1 LG=card0-HDMI-A-1 E=org.lumora.Lumora1.Error
dell() { desk_value brightness "$DELL"; }
lg() { desk_value brightness "$LG"; }
all() { echo "$(dell) $(lg) $(desk_value backlight intel_backlight)"; }
# The on-screen display (Lumora's own on an X11 desktop: 320 x 64, unmanaged): "x y" while shown.
osd_at() { lumora_windows | awk '$4 == 320 && $5 == 64 && $6 == 1 {print $2, $3; exit}'; }
# osd_pixel X Y: brightness (r + g + b) of the OSD's pixel X Y in the last screenshot.
osd_pixel() { pixel_column "$ARTIFACTS/01-osd.png" $(( OSD_X + $1 )) $(( OSD_Y + $2 )) $(( OSD_Y + $2 )) | awk '{print $2 + $3 + $4}'; }
step "desktop: Xorg (dummy) with eDP-1, DP-1, HDMI-1 side by side and DP-3 below, openbox, trayer, a session bus"
monitors_session_start "$WORK" 6400 2520 || abort "Xorg did not start"
monitors_set eDP-1=1920x1200+0+0 DP-1=2560x1440+1920+0 HDMI-1=1920x1080+4480+0 DP-3=1920x1080+0+1440 ||
    abort "xrandr could not lay out the monitors"
session_start_tray "$WORK" || abort "trayer did not start"
session_bus "$WORK" || abort "no session bus"
mkdir -p "$XDG_CONFIG_HOME/Lumora" "$WORK/keys"
printf '[General]\nuseF1F2ForExternalBrightness=true\n' >"$XDG_CONFIG_HOME/Lumora/Lumora.conf"
step "lumora on the desk, with the key service on a private system bus where polkit refuses it for now"
# The desk first, then the system bus in it (its key service must see the desk); lumora's end does not end the desk.
"$VIRTUAL_DESK" --control "$WORK/control" --log "$WORK/desk.jsonl" -- bash -c '
    /usr/bin/python3 "$6" "$7" "$8" "$9" --idle-exit 2 --refuse >"$7/address" & bus=$!
    trap "kill $bus" EXIT
    for _ in $(seq 600); do [[ -s $7/address ]] && break; sleep 0.05; done
    export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$7/bus
    for _ in $(seq 600); do [[ -e $1 ]] && break; sleep 0.05; done
    "$2" & echo $! >"$3"; wait $!; echo $? >"$4"
    for _ in $(seq 1200); do [[ -e $5 ]] && exit 0; sleep 0.05; done' \
    _ "$WORK/go" "$LUMORA" "$WORK/lumora.pid" "$WORK/lumora.status" "$WORK/stop" \
    "$HERE/../support/key-service-bus.py" "$WORK/keys" "$LUMORA_KEYS" "$HERE/../../data/org.lumora.Keys.conf" \
    >"$WORK/lumora.log" 2>&1 &
DESK_PID=$! && session_track $DESK_PID
wait_until 20 test -S "$WORK/control" || abort "the virtual desk did not come up"
wait_until 60 test -s "$WORK/keys/address" || abort "the system bus did not come up"
touch "$WORK/go"
find_icon 20 || abort "the sun never docked in the tray"
wait_until 20 listed || abort "Displays never listed the three displays"
step "the window on the DELL, the pointer on the LG: bad arguments are refused and change nothing"
xdotool mousemove 5000 500
work_at 2300 300 || abort "no window on the DELL"
BEFORE=$(desk_state)
refused "
call StepDisplayInUse 2 | $E.OutOfRange: A step must be a fraction from -1 to 1 (0.0625 is a sixteenth, as a brightness key steps), not 2.
call SetDisplayInUse -0.1 | $E.OutOfRange: The brightness must be a fraction from 0 to 1 (0.5 is 50 %), not -0.1.
call SetDisplayInUse inf | $E.NotFinite
send org.lumora.Lumora1.SetDisplayInUse string:0.5 | org.freedesktop.DBus.Error.InvalidArgs: SetDisplayInUse takes (d), a brightness fraction, not (s)."
check "monitors, backlight and the desk's transaction count as before ($BEFORE)" equals "$BEFORE" desk_state
step "StepDisplayInUse(0.0625) with the window on the DELL and the pointer on the LG: the DELL, a sixteenth up"
call StepDisplayInUse 0.0625 >/dev/null
# 1920 + (2560 - 320) / 2 across; 1440 - 64 - a tenth of 1440 down.
check "the on-screen display shows on the DELL's screen, low in its middle" wait_until 10 equals "3040 1232" osd_at
read -r OSD_X OSD_Y < <(osd_at)
# The bar runs from 60 to 306 across, 44 to 50 down; filled to 56 % (x 198).
osd_drawn() { shot 01-osd >/dev/null && (( $(osd_pixel 30 6) < 180 && $(osd_pixel 158 47) > 600 && $(osd_pixel 281 47) < 450 && $(osd_pixel 281 47) > 180 )); }
check "its box is dark, its bar filled at 40 % and not at 90 %" wait_until 5 osd_drawn
check "the window the user works in keeps the focus" equals "$WINDOW" xdotool getactivewindow
check "Displays shows the DELL at 0.5625" equals "0.5625 true" shown 103
check "the DELL at 56 on the wire, the LG and the backlight untouched" wait_until 10 equals "56 70 9600" all
check "it goes by itself" wait_until 10 equals "" osd_at
step "the window onto the LG, the pointer on the DELL; across both, mostly on the LG; on the built-in panel"
xdotool mousemove 3000 700
work_at 4700 200 || abort "no window on the LG"
call SetDisplayInUse 0.3 >/dev/null
check "SetDisplayInUse(0.3): the LG at 30, the DELL still at 56" wait_until 10 equals "56 30 9600" all
work_at 4120 200 || abort "no window across the DELL and the LG"
call StepDisplayInUse -0.0625 >/dev/null
check "540 of its 900 pixels on the LG: StepDisplayInUse(-0.0625) steps the LG to 24" wait_until 10 equals "56 24 9600" all
work_at 300 300 || abort "no window on the panel"
call SetDisplayInUse 0.25 >/dev/null
check "on the panel: its backlight at a quarter (4800 of 19200)" wait_until 10 equals "56 24 4800" all
call StepDisplayInUse -0.0625 >/dev/null
check "a sixteenth down: 3600, the monitors untouched" wait_until 10 equals "56 24 3600" all
step "the window closed, nothing to read: the pointer decides"
kill "$WINDOW_PID" 2>/dev/null
wait_until 10 eval '! xwininfo -id "$WINDOW" >/dev/null 2>&1' || abort "the window did not close"
WINDOW=""
call StepDisplayInUse -0.0625 >/dev/null
check "the DELL, under the pointer, at 50" wait_until 10 equals 50 dell
xdotool mousemove 5500 900
call SetDisplayInUse 0.7 >/dev/null
check "the LG, under the pointer now, at 70" wait_until 10 equals 70 lg
step "the pointer on a monitor plugged in without DDC/CI: NotAdjustable, and nothing changes"
desk add 0 '{"name":"DP-3","connectorId":120}' >/dev/null || abort "the desk added no DP-3"
xdotool mousemove 900 2000
BEFORE=$(all)
refused "
call StepDisplayInUse 0.0625 | $E.NotAdjustable: Display 120, the display in use, is not one Lumora can adjust; the displays are 103 (DELL U2720Q), 110 (LG HDR 4K), 95 (Built-in Display).
call SetDisplayInUse 0.8 | $E.NotAdjustable"
check "monitors and backlight as before ($BEFORE), the three displays still listed" eval '[[ $(all) == "$BEFORE" ]] && listed'
# The brightness keys. The default desk's keyboards: event0 the laptop keyboard (letters, Alt, brightness keys),
# event1 the Video Bus, event2 an external keyboard (letters, Alt, no brightness keys), event3 its consumer control.
EXPECTED=()  # every key event the desktop must get from the laptop keyboard's clone, in order: "CODE VALUE"
key() { desk key event0 "$1" "$2" >/dev/null || fail "the desk took no key $1 $2"; }
press() { key "$1" 1; key "$1" 0; }
letters() { local l; for l in "$@"; do press "KEY_$l"; EXPECTED+=("KEY_$l 1" "KEY_$l 0"); done; }
grabbed() { echo "$(desk_value grabbed event0)$(desk_value grabbed event1)$(desk_value grabbed event2)$(desk_value grabbed event3)"; }
# panel_orange NAME: the panel opened from the icon, its screenshot NAME, and the number of orange (warning) pixels.
panel_orange() {
    open_panel || return 1
    sleep 0.3  # the panel draws its content once shown
    shot "$1"
    ORANGE=$(session_convert "$ARTIFACTS/$1.png" -crop "${PW}x$PH+$PX+$PY" +repage -depth 8 txt:- |
        awk -F'[ ,:()]+' 'NR > 1 && $3 > 200 && $4 > 100 && $4 < 190 && $5 < 80 { n++ } END { print n + 0 }')
    click_icon && wait_until 10 panel_hidden
}
polkit() { DBUS_SYSTEM_BUS_ADDRESS=unix:path=$WORK/keys/bus gdbus call --system --dest org.freedesktop.PolicyKit1 \
    --object-path /org/freedesktop/PolicyKit1/Authority --method "org.freedesktop.DBus.Mock.$1" "${@:2}" >/dev/null; }
step "keys untrusted at launch (polkit refuses), the setting on: the warning, and no grab"
check "no keyboard grabbed, no clone" equals "0000 " eval 'echo "$(grabbed) $(desk_value clones)"'
panel_orange 02-untrusted || abort "the panel did not open"
check "the panel shows the warning (orange pixels: $ORANGE)" test "$ORANGE" -gt 20
step "polkit allowing it (its Changed signal) gives Lumora the keys about half a second later, with no action"
polkit SetAllowed "['org.lumora.keys.attach']" || abort "the stand-in for polkit did not answer"
granted=$(now_ms)
polkit EmitSignal org.freedesktop.PolicyKit1.Authority Changed "" "[]" || abort "polkit said nothing"
wait_until 10 equals 1101 grabbed || abort "the keyboards were never taken"
took=$(( $(now_ms) - granted ))
check "the keyboards with brightness keys taken $took ms after the grant (450 ... 3000), the external one left alone" \
    test "$took" -ge 450 -a "$took" -le 3000
panel_orange 03-trusted || fail "the panel did not open"
check "the warning is gone (orange pixels: $ORANGE)" test "$ORANGE" -le 5
LUMORA_PID=$(cat "$WORK/lumora.pid")
step "F2 with the window mostly on the DELL: a sixteenth up; held, every auto-repeat steps again"
letters H E L L O
work_at 2300 300 || abort "no window on the DELL"
press KEY_BRIGHTNESSUP
check "DELL at 56 (50 + 6.25), LG untouched at 70" wait_until 10 equals "56 70 3600" all
letters W O R L D
for v in 1 2 2 2 0; do key KEY_BRIGHTNESSUP $v; done
check "DELL four sixteenths up: 81" wait_until 10 equals 81 dell
step "Alt+F1 puts the DELL into standby, Alt+F2 wakes it at full"
key KEY_LEFTALT 1; key KEY_BRIGHTNESSDOWN 1
check "DELL in standby (D6 = 04)" wait_until 10 equals 4 desk_value power "$DELL"
key KEY_BRIGHTNESSDOWN 0; key KEY_BRIGHTNESSUP 1
check "DELL on again (D6 = 01) at full brightness" wait_until 10 equals "100 1" monitor "$DELL"
key KEY_BRIGHTNESSUP 0; key KEY_LEFTALT 0
EXPECTED+=("KEY_LEFTALT 1" "KEY_LEFTALT 0")
letters O K
step "F1 with the window on the built-in panel goes on unchanged, and nothing is written"
work_at 300 300 || abort "no window on the panel"
press KEY_BRIGHTNESSDOWN
EXPECTED+=("KEY_BRIGHTNESSDOWN 1" "KEY_BRIGHTNESSDOWN 0")
letters A
# The next press on the DELL is the only write after it (checked in the log below).
work_at 2300 300 || abort "no window on the DELL"
press KEY_BRIGHTNESSDOWN
check "DELL one sixteenth down from full: 94" wait_until 10 equals 94 dell
letters B Y E
step "killing lumora in the middle of a press leaves no key held: the service lets everything go"
key KEY_BRIGHTNESSDOWN 1
check "the press reached the DELL (88)" wait_until 10 equals 88 dell
kill -KILL "$LUMORA_PID"
check "lumora is gone" wait_until 10 test -s "$WORK/lumora.status"
check "every grab is released, every clone destroyed" wait_until 10 equals "0000 " eval 'echo "$(grabbed) $(desk_value clones)"'
key KEY_BRIGHTNESSDOWN 0
touch "$WORK/stop"
check "the desk ends" wait_until 20 ended "$DESK_PID"
step "what the desktop got from the laptop keyboard's clone (the desk's log)"
wait_until 20 test -s "$WORK/desk.jsonl" || abort "the desk wrote no log"
inputs() { grep '"kind":"input"' "$WORK/desk.jsonl"; }
CLONE=$(inputs | grep '"what":"write"' | grep -m1 '"code":"KEY_H"' | sed 's/.*"device":"\([^"]*\)".*/\1/')
written() { inputs | grep '"what":"write"' | grep "\"device\":\"$CLONE\""; }
mapfile -t GOT < <(written | grep '"type":"EV_KEY"' | sed 's/.*"code":"\([^"]*\)","value":\([0-9-]*\).*/\1 \2/')
check "the laptop keyboard had a clone ($CLONE); every key went on unchanged and in order, of the brightness keys Lumora acted on nothing, not even their key-ups" \
    test -n "$CLONE" -a "${GOT[*]}" == "${EXPECTED[*]}"
[[ "${GOT[*]}" == "${EXPECTED[*]}" ]] || printf '   expected: %s\n   got:      %s\n' "${EXPECTED[*]}" "${GOT[*]}"
check "each key event went with its scan code" equals "${#EXPECTED[@]}" eval 'written | grep -c "\"code\":\"MSC_SCAN\""'
check "the clone was destroyed with no key held" equals 0 eval 'inputs | grep "\"device\":\"$CLONE\"" | grep "\"what\":\"destroy\"" | grep -c held'
# No brightness write between the F1 on the panel (the second press of brightness down) and the next one.
times=($(inputs | grep '"what":"key"' | grep '"code":"KEY_BRIGHTNESSDOWN","value":1' | sed 's/.*"t":\([0-9]*\).*/\1/'))
check "no DDC/CI write for the F1 that went on to the desktop (presses: ${#times[@]})" equals 0 eval \
    'grep -v "\"kind\":\"input\"" "$WORK/desk.jsonl" | grep "\"request\":\"set\"" | sed "s/.*\"t\":\([0-9]*\).*/\1/" |
     awk -v from="${times[1]:-0}" -v to="${times[2]:-0}" "\$1 >= from && \$1 < to" | wc -l'
no_violation "$WORK/lumora.log"
finish
