#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# The display in use on RandR monitors named as the desk's connectors (Xorg's dummy driver), as the window moves:
# StepDisplayInUse, SetDisplayInUse, then the brightness keys through the real key service on a private system bus.
#   display-in-use.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
LUMORA_KEYS=${LUMORA_KEYS:-$(cd "$(dirname "$1")/.." && pwd)/LumoraKeys/lumora-keys}
source "$HERE/checks.sh" "$@"
command -v Xorg >/dev/null && command -v xrandr >/dev/null && (( EUID == 0 )) && [[ -e /usr/lib/xorg/modules/drivers/dummy_drv.so ]] ||
    { echo "SKIP: needs Xorg with the dummy driver, xrandr, and root"; exit 77; }
before_cleanup() { touch "$WORK/stop"; }  # the desk outlives lumora in the last step, and ends once told to
DELL=card0-DP-1 LG=card0-HDMI-A-1 E=org.lumora.Lumora1.Error
dell() { desk_value brightness "$DELL"; }; all() { echo "$(dell) $(desk_value brightness "$LG") $(desk_value backlight intel_backlight)"; }
# osd_at: "x y" of the on-screen display while shown (Lumora's own on an X11 desktop: 320 x 64, unmanaged).
osd_at() { lumora_windows | awk '$4 == 320 && $5 == 64 && $6 == 1 {print $2, $3; exit}'; }
# osd_pixel X Y: r + g + b of the OSD's pixel X Y in the last screenshot.
osd_pixel() { pixel_column "$ARTIFACTS/01-osd.png" $(( OSD_X + $1 )) $(( OSD_Y + $2 )) $(( OSD_Y + $2 )) | awk '{print $2 + $3 + $4}'; }
# work_at X Y: the window the user works in (WINDOW, its process WINDOW_PID), opened or moved to X Y, and focused.
WINDOW="" WINDOW_PID=""
work_at() {
    if [[ -z $WINDOW ]]; then
        xmessage -geometry "900x500+$1+$2" "the window you work in" >/dev/null 2>&1 & WINDOW_PID=$! && session_track "$WINDOW_PID"
        wait_until 10 eval 'WINDOW=$(xdotool search --onlyvisible --name "^xmessage$" | head -1); [[ -n $WINDOW ]]' || return 1
    else xdotool windowmove --sync "$WINDOW" "$1" "$2" >/dev/null 2>&1 || return 1; fi
    xdotool windowactivate --sync "$WINDOW" >/dev/null 2>&1
    wait_until 10 eval '[[ $(xdotool getactivewindow 2>/dev/null) == "$WINDOW" ]]'
}
step "desktop: Xorg (dummy) with eDP-1, DP-1, HDMI-1 side by side and DP-3 below, openbox, trayer, a session bus"
# One screen; the mode's pixel clock stays under the driver's 300 MHz by refreshing slowly.
W=6400 H=2520
printf '%s\n' 'Section "Device"' 'Identifier "dummy"' 'Driver "dummy"' 'VideoRam 256000' 'EndSection' \
    'Section "Monitor"' 'Identifier "monitor"' 'HorizSync 5.0-1000.0' 'VertRefresh 5.0-200.0' \
    "Modeline \"desk\" $(awk -v t=$(( (W + 220) * (H + 20) )) 'BEGIN { c = t * 14 / 1e6; printf "%.2f", (c > 280 ? 280 : c) }') $W $(( W + 20 )) $(( W + 120 )) $(( W + 220 )) $H $(( H + 3 )) $(( H + 8 )) $(( H + 20 ))" \
    'EndSection' 'Section "Screen"' 'Identifier "screen"' 'Device "dummy"' 'Monitor "monitor"' 'DefaultDepth 24' \
    'SubSection "Display"' 'Depth 24' 'Modes "desk"' "Virtual $W $H" 'EndSubSection' 'EndSection' >"$WORK/xorg.conf"
Xorg -displayfd 3 -config "$WORK/xorg.conf" -noreset -nolisten tcp -logfile "$WORK/xorg.log" 3>"$WORK/displayfd" >"$WORK/xorg.out" 2>&1 &
session_track $!
session_connect "$WORK" "Xorg (see xorg.log)" && session_start_wm "$WORK" || abort "Xorg did not start"
# Named as the desk's connectors (Qt reads them when it connects, so before lumora starts), at about 96 dpi.
for monitor in eDP-1=1920x1200+0+0 DP-1=2560x1440+1920+0 HDMI-1=1920x1080+4480+0 DP-3=1920x1080+0+1440; do
    IFS='x+' read -r w h x y <<<"${monitor#*=}"
    xrandr --setmonitor "${monitor%%=*}" "$w/$(( w * 254 / 960 ))x$h/$(( h * 254 / 960 ))+$x+$y" none ||
        abort "xrandr could not lay out the monitors"
done
session_start_tray "$WORK" || abort "trayer did not start"
session_bus "$WORK" || abort "no session bus"
mkdir -p "$XDG_CONFIG_HOME/Lumora" "$WORK/keys"
printf '[General]\nuseF1F2ForExternalBrightness=true\n' >"$XDG_CONFIG_HOME/Lumora/Lumora.conf"
step "lumora on the desk, with the key service on a private system bus where polkit refuses it for now"
# The desk first, then the system bus in it (its key service must see the desk); lumora's end does not end the desk.
"$VIRTUAL_DESK" --control "$WORK/control" --log "$WORK/desk.jsonl" -- bash -c '
    /usr/bin/python3 "$6" "$7" "$8" "$9" --idle-exit 2 --refuse >/dev/null & trap "kill $!" EXIT
    export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$7/bus
    for _ in $(seq 1400); do [[ -e $1 ]] && break; sleep 0.05; done
    "$2" & echo $! >"$3"; wait $!; echo $? >"$4"
    for _ in $(seq 1200); do [[ -e $5 ]] && exit 0; sleep 0.05; done' \
    _ "$WORK/go" "$LUMORA" "$WORK/lumora.pid" "$WORK/lumora.status" "$WORK/stop" \
    "$HERE/../support/key-service-bus.py" "$WORK/keys" "$LUMORA_KEYS" "$HERE/../../data/org.lumora.Keys.conf" \
    >"$WORK/lumora.log" 2>&1 &
DESK_PID=$! && session_track $DESK_PID
wait_until 20 test -S "$WORK/control" && wait_until 60 test -e "$WORK/keys/ready" || abort "no virtual desk or no system bus in it"
touch "$WORK/go" && find_icon 20 && wait_until 20 listed || abort "the sun never docked, or Displays never listed three displays"
step "StepDisplayInUse(0.0625) with the window on the DELL and the pointer on the LG: the DELL, a sixteenth up"
xdotool mousemove 5000 500
work_at 2300 300 || abort "no window on the DELL"
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
# WINDOW AT | CALL | "DELL LG BACKLIGHT" after it. At 4120 the window has 540 of its 900 pixels on the LG.
while IFS='|' read -r -u 3 at what expected; do
    work_at $at || abort "no window at $at"
    after "call $what" "window at $at, $what: $expected" "$expected" all
done 3<<'MOVES'
4700 200|SetDisplayInUse 0.3|56 30 9600
4120 200|StepDisplayInUse -0.0625|56 24 9600
300 300|SetDisplayInUse 0.25|56 24 4800
300 300|StepDisplayInUse -0.0625|56 24 3600
MOVES
step "the window closed, nothing to read: the pointer decides; on a monitor without DDC/CI: NotAdjustable, nothing changes"
kill "$WINDOW_PID" 2>/dev/null && wait_until 10 eval '! xwininfo -id "$WINDOW" >/dev/null 2>&1' || abort "the window did not close"
WINDOW=""
after "call StepDisplayInUse -0.0625" "the DELL, under the pointer, at 50" 50 dell
after "xdotool mousemove 5500 900; call SetDisplayInUse 0.7" "the LG, under the pointer now, at 70" "50 70" eval 'all | cut -d" " -f1,2'
desk add 0 '{"name":"DP-3","connectorId":120}' >/dev/null || abort "the desk added no DP-3"
xdotool mousemove 900 2000
refused 'all; client displays | wc -l' "
call StepDisplayInUse 0.0625 | $E.NotAdjustable: Display 120, the display in use, is not one Lumora can adjust; the displays are 103 (DELL U2720Q), 110 (LG HDR 4K), 95 (Built-in Display).
call SetDisplayInUse 0.8 | $E.NotAdjustable"
# The desk's keyboards: event0 the laptop's, event1 the Video Bus, event2 an external one without brightness keys.
EXPECTED=()  # every key event the desktop must get from the laptop keyboard's clone, in order: "CODE VALUE"
key() { desk key event0 "$1" "$2" >/dev/null || fail "the desk took no key $1 $2"; }
press() { key "$1" 1; key "$1" 0; }
letters() { local l; for l in "$@"; do press "KEY_$l"; EXPECTED+=("KEY_$l 1" "KEY_$l 0"); done; }
grabbed() { echo "$(desk_value grabbed event0)$(desk_value grabbed event1)$(desk_value grabbed event2)$(desk_value grabbed event3)"; }
# panel_orange NAME: the panel opened from the icon (and drawn), shot as NAME; ORANGE: its orange (warning) pixels.
panel_orange() {
    open_panel && sleep 0.3 && shot "$1" || return 1
    ORANGE=$(session_convert "$ARTIFACTS/$1.png" -crop "${PW}x$PH+$PX+$PY" +repage -depth 8 txt:- |
        awk -F'[ ,:()]+' 'NR > 1 && $3 > 200 && $4 > 100 && $4 < 190 && $5 < 80 { n++ } END { print n + 0 }')
    click_icon && wait_until 10 panel_hidden
}
polkit() { DBUS_SYSTEM_BUS_ADDRESS=unix:path=$WORK/keys/bus gdbus call --system --dest org.freedesktop.PolicyKit1 \
    --object-path /org/freedesktop/PolicyKit1/Authority --method "org.freedesktop.DBus.Mock.$1" "${@:2}" >/dev/null; }
step "keys untrusted at launch (polkit refuses), the setting on: the warning, and no grab; polkit's Changed grants them"
check "no keyboard grabbed, no clone" equals "0000 " eval 'echo "$(grabbed) $(desk_value clones)"'
panel_orange 02-untrusted || abort "the panel did not open"
check "the panel shows the warning (orange pixels: $ORANGE)" test "$ORANGE" -gt 20
polkit SetAllowed "['org.lumora.keys.attach']" || abort "the stand-in for polkit did not answer"
granted=$(now_ms)
polkit EmitSignal org.freedesktop.PolicyKit1.Authority Changed "" "[]" || abort "polkit said nothing"
wait_until 10 equals 1101 grabbed || abort "the keyboards were never taken"
took=$(( $(now_ms) - granted ))
check "the keyboards with brightness keys taken $took ms after the grant (450 ... 3000), the external one left alone" \
    test "$took" -ge 450 -a "$took" -le 3000
panel_orange 03-trusted || fail "the panel did not open"
check "the warning is gone (orange pixels: $ORANGE)" test "$ORANGE" -le 5
step "F2 with the window mostly on the DELL: a sixteenth up; held, every auto-repeat steps again; Alt+F1, Alt+F2"
letters H E L L O
work_at 2300 300 || abort "no window on the DELL"
after "press KEY_BRIGHTNESSUP" "DELL at 56 (50 + 6.25), LG untouched at 70" "56 70 3600" all
letters W O R L D
after "for v in 1 2 2 2 0; do key KEY_BRIGHTNESSUP \$v; done" "DELL four sixteenths up: 81" 81 dell
after "key KEY_LEFTALT 1; key KEY_BRIGHTNESSDOWN 1" "Alt+F1: DELL in standby (D6 = 04)" 4 desk_value power "$DELL"
after "key KEY_BRIGHTNESSDOWN 0; key KEY_BRIGHTNESSUP 1" "Alt+F2: DELL on again (D6 = 01) at full brightness" "100 1" monitor "$DELL"
key KEY_BRIGHTNESSUP 0; key KEY_LEFTALT 0; EXPECTED+=("KEY_LEFTALT 1" "KEY_LEFTALT 0")
letters O K
step "F1 with the window on the built-in panel goes on unchanged, and nothing is written"
work_at 300 300 || abort "no window on the panel"
press KEY_BRIGHTNESSDOWN; EXPECTED+=("KEY_BRIGHTNESSDOWN 1" "KEY_BRIGHTNESSDOWN 0")
letters A
work_at 2300 300 || abort "no window on the DELL"
after "press KEY_BRIGHTNESSDOWN" "back on the DELL: one sixteenth down from full, 94, the LG and the backlight untouched" \
    "94 70 3600" all
letters B Y E
step "killing lumora in the middle of a press leaves no key held: the service lets everything go"
after "key KEY_BRIGHTNESSDOWN 1" "the press reached the DELL (88)" 88 dell
kill -KILL "$(cat "$WORK/lumora.pid")"
check "lumora is gone" wait_until 10 test -s "$WORK/lumora.status"
check "every grab is released, every clone destroyed" wait_until 10 equals "0000 " eval 'echo "$(grabbed) $(desk_value clones)"'
key KEY_BRIGHTNESSDOWN 0; touch "$WORK/stop"
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
no_violation "$WORK/lumora.log"
finish
