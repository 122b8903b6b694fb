#!/usr/bin/env bash
# The brightness keys end to end: the real lumora binary, with the setting stored on, and the real key service
# (lumora-keys, started by a private system bus with the package's policy and stand-ins for logind and polkit), on
# the virtual desk's keyboards, uinput and monitors, on an X server whose monitors are laid out like the desk's
# connectors (Xorg with the dummy driver: the built-in panel eDP-1 on the left, the DELL on DP-1 in the middle, the
# LG on HDMI-A-1 on the right). Keys are pressed on the emulated keyboards like a person would; the window they are
# about is an ordinary window moved from monitor to monitor. What reaches the monitors is read on the emulated wire;
# what reaches the desktop is what the service writes to its twins (the desk's log).
#
#   brightness-keys.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR
#
# Exit status: 0 passed, 1 failed, 77 skipped (no Xorg with the dummy driver on this machine, or not root).
set -uo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
# The key service of the same build, beside the program's folder.
LUMORA_KEYS=${LUMORA_KEYS:-$(cd "$(dirname "$1")/.." && pwd)/LumoraKeys/lumora-keys}

# shellcheck source=checks.sh
source "$HERE/checks.sh" "$@"
# shellcheck source=monitors-session.sh
source "$HERE/monitors-session.sh"
# The desk, which outlives lumora in the last step, ends once told to.
before_cleanup() { touch "$WORK/stop"; }

# The default desk's keyboards: event0 the laptop keyboard (letters, Alt, brightness keys), event1 the Video Bus,
# event2 an external keyboard (letters, Alt, no brightness keys), event3 its consumer-control interface.
LAPTOP=event0
DELL=card0-DP-1
LG=card0-HDMI-A-1

# Every key event the desktop must get from the laptop keyboard's clone, in order: "CODE VALUE".
EXPECTED=()
key() { desk key "$LAPTOP" "$1" "$2" >/dev/null || fail "the desk took no key $1 $2"; }
# letters A B ...: typed on the laptop keyboard; each goes on to the desktop.
letters()
{
    local letter
    for letter in "$@"; do
        key "KEY_$letter" 1
        key "KEY_$letter" 0
        EXPECTED+=("KEY_$letter 1" "KEY_$letter 0")
    done
}
dell_brightness() { desk_value brightness "$DELL"; }
dell_power() { desk_value power "$DELL"; }
grabbed() { equals 1 desk_value grabbed "$1"; }
none_grabbed() { equals 0 desk_value grabbed event0 && equals 0 desk_value grabbed event1 && equals 0 desk_value grabbed event3; }
all_grabbed() { grabbed event0 && grabbed event1 && grabbed event3; }


# orange_pixels FILE X Y W H: how many pixels of that part of the image are the warning's orange.
orange_pixels()
{
    session_convert "$1" -crop "$4x$5+$2+$3" +repage -depth 8 txt:- |
        awk -F'[ ,:()]+' 'NR > 1 && $3 > 200 && $4 > 100 && $4 < 190 && $5 < 80 { n++ } END { print n + 0 }'
}
# The panel, opened from the tray icon: its screenshot and the number of orange pixels in it.
panel_orange()
{
    local ix iy iw ih px py pw ph
    read -r ix iy iw ih < <(tray_icon) || return 1
    xdotool mousemove $(( ix + iw / 2 )) $(( iy + ih / 2 )) click 1
    wait_until 10 panel_shown || return 1
    sleep 0.3  # the panel draws its content once shown
    read -r px py pw ph < <(panel_geometry)
    shot "$1"
    ORANGE=$(orange_pixels "$ARTIFACTS/$1.png" "$px" "$py" "$pw" "$ph")
    xdotool mousemove $(( ix + iw / 2 )) $(( iy + ih / 2 )) click 1
    wait_until 10 panel_hidden
}

step "desktop: Xorg (dummy) with eDP-1, DP-1 and HDMI-1 side by side, openbox, trayer"
monitors_session_start "$WORK" 6400 1440 || abort "Xorg did not start"
monitors_set eDP-1=1920x1200+0+0 DP-1=2560x1440+1920+0 HDMI-1=1920x1080+4480+0 || abort "xrandr could not lay out the monitors"
session_start_tray "$WORK" || abort "trayer did not start"
pass "display $DISPLAY: $(xrandr --listmonitors | tail -n +2 | awk '{print $2}' | tr -d '+*' | tr '\n' ' ')"

mkdir -p "$XDG_CONFIG_HOME/Lumora"
printf '[General]\nuseF1F2ForExternalBrightness=true\n' >"$XDG_CONFIG_HOME/Lumora/Lumora.conf"

# The stand-in for polkit, on the private system bus.
export KEYS_BUS=unix:path=$WORK/keys/bus
polkit() {
    DBUS_SYSTEM_BUS_ADDRESS=$KEYS_BUS gdbus call --system --dest org.freedesktop.PolicyKit1 \
        --object-path /org/freedesktop/PolicyKit1/Authority --method "org.freedesktop.DBus.Mock.$1" "${@:2}" >/dev/null
}

step "untrusted at launch (polkit refuses), the setting on: the warning, and no grab"
# The desk comes up first, and the system bus in it (its key service must see the desk); lumora's end does not end
# the desk, so that what it left behind can be looked at.
mkdir -p "$WORK/keys"
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
DESK_PID=$!
session_track "$DESK_PID"
wait_until 20 test -S "$WORK/control" || abort "the virtual desk did not come up"
wait_until 60 test -s "$WORK/keys/address" || abort "the system bus did not come up"
touch "$WORK/go"
wait_until 20 icon_docked || abort "the sun never docked in the tray"
wait_until 10 test -s "$WORK/lumora.pid" || abort "no lumora"
LUMORA_PID=$(cat "$WORK/lumora.pid")
check "no keyboard grabbed" none_grabbed
check "no clone" equals "" desk_value clones
panel_orange 01-untrusted || abort "the panel did not open"
check "the panel shows the warning (orange pixels: $ORANGE)" test "$ORANGE" -gt 20

step "polkit allowing it (its Changed signal) gives Lumora the keys about half a second later, with no action"
polkit SetAllowed "['org.lumora.keys.attach']" || abort "the stand-in for polkit did not answer"
granted=$(now_ms)
polkit EmitSignal org.freedesktop.PolicyKit1.Authority Changed "" "[]" || abort "polkit said nothing"
wait_until 10 all_grabbed || abort "the keyboards were never taken"
took=$(( $(now_ms) - granted ))
check "the keyboards with brightness keys taken ${took} ms after the grant (at least 450, within 3000)" \
    test "$took" -ge 450 -a "$took" -le 3000
check "the external keyboard without brightness keys is left alone" equals 0 desk_value grabbed event2
panel_orange 02-trusted || fail "the panel did not open"
check "the warning is gone (orange pixels: $ORANGE)" test "$ORANGE" -le 5

step "F2 with the window mostly on the DELL: one sixteenth up on the wire"
letters H E L L O
work_at 2300 300 || abort "no window on the DELL"
key KEY_BRIGHTNESSUP 1
key KEY_BRIGHTNESSUP 0
check "DELL at 56 (50 + 6.25)" wait_until 10 equals 56 dell_brightness
check "LG untouched at 70" equals 70 desk_value brightness "$LG"
letters W O R L D

step "F2 held: every auto-repeat steps again"
key KEY_BRIGHTNESSUP 1
key KEY_BRIGHTNESSUP 2
key KEY_BRIGHTNESSUP 2
key KEY_BRIGHTNESSUP 2
key KEY_BRIGHTNESSUP 0
check "DELL four sixteenths up: 81" wait_until 10 equals 81 dell_brightness

step "Alt+F1 puts the DELL into standby, Alt+F2 wakes it at full"
key KEY_LEFTALT 1
EXPECTED+=("KEY_LEFTALT 1")
key KEY_BRIGHTNESSDOWN 1
check "DELL in standby (D6 = 04)" wait_until 10 equals 4 dell_power
key KEY_BRIGHTNESSDOWN 0
key KEY_BRIGHTNESSUP 1
check "DELL on again (D6 = 01)" wait_until 10 equals 1 dell_power
check "DELL at full brightness" wait_until 10 equals 100 dell_brightness
key KEY_BRIGHTNESSUP 0
key KEY_LEFTALT 0
EXPECTED+=("KEY_LEFTALT 0")
letters O K

step "F1 with the window on the built-in panel goes on unchanged, and nothing is written"
work_at 300 300 || abort "no window on the panel"
key KEY_BRIGHTNESSDOWN 1
key KEY_BRIGHTNESSDOWN 0
EXPECTED+=("KEY_BRIGHTNESSDOWN 1" "KEY_BRIGHTNESSDOWN 0")
letters A
# The next press on the DELL is the only write after it (checked in the log below).
work_at 2300 300 || abort "no window on the DELL"
key KEY_BRIGHTNESSDOWN 1
key KEY_BRIGHTNESSDOWN 0
check "DELL one sixteenth down from full: 94" wait_until 10 equals 94 dell_brightness
letters B Y E

step "killing lumora in the middle of a press leaves no key held: the service lets everything go"
key KEY_BRIGHTNESSDOWN 1
check "the press reached the DELL (88)" wait_until 10 equals 88 dell_brightness
kill -KILL "$LUMORA_PID"
check "lumora is gone" wait_until 10 test -s "$WORK/lumora.status"
check "every grab is released" wait_until 10 none_grabbed
check "every clone is destroyed" wait_until 10 equals "" desk_value clones
key KEY_BRIGHTNESSDOWN 0
touch "$WORK/stop"
check "the desk ends" wait_until 20 bash -c '! kill -0 "$0" 2>/dev/null' "$DESK_PID"

step "what the desktop got from the laptop keyboard's clone (the desk's log)"
LOG=$WORK/desk.jsonl
wait_until 20 test -s "$LOG" || abort "the desk wrote no log"
inputs() { grep '"kind":"input"' "$LOG"; }
CLONE=$(inputs | grep '"what":"write"' | grep '"code":"KEY_H"' | head -1 | sed 's/.*"device":"\([^"]*\)".*/\1/')
check "the laptop keyboard had a clone ($CLONE)" test -n "$CLONE"
mapfile -t GOT < <(inputs | grep '"what":"write"' | grep "\"device\":\"$CLONE\"" | grep '"type":"EV_KEY"' |
    sed 's/.*"code":"\([^"]*\)","value":\([0-9-]*\).*/\1 \2/')
check "every key went on unchanged and in order; of the brightness keys Lumora acted on, nothing, not even their key-ups (${#GOT[@]} key events, ${#EXPECTED[@]} expected)" \
    test "${GOT[*]}" == "${EXPECTED[*]}"
if [[ "${GOT[*]}" != "${EXPECTED[*]}" ]]; then
    echo "   expected: ${EXPECTED[*]}"
    echo "   got:      ${GOT[*]}"
fi
scans=$(inputs | grep '"what":"write"' | grep "\"device\":\"$CLONE\"" | grep -c '"code":"MSC_SCAN"')
check "each key event went with its scan code ($scans scan codes)" test "$scans" -eq "${#EXPECTED[@]}"
check "the clone was destroyed with no key held" \
    test "$(inputs | grep "\"device\":\"$CLONE\"" | grep '"what":"destroy"' | grep -c held)" -eq 0
# No brightness write between the F1 on the panel (the second press of brightness down) and the next one.
times=($(inputs | grep '"what":"key"' | grep '"code":"KEY_BRIGHTNESSDOWN","value":1' | sed 's/.*"t":\([0-9]*\).*/\1/'))
if (( ${#times[@]} >= 3 )); then
    writes=$(grep -v '"kind":"input"' "$LOG" | grep '"request":"set"' | sed 's/.*"t":\([0-9]*\).*/\1/' |
        awk -v from="${times[1]}" -v to="${times[2]}" '$1 >= from && $1 < to' | wc -l)
    check "no DDC/CI write for the F1 that went on to the desktop ($writes)" test "$writes" -eq 0
else
    fail "the log has ${#times[@]} presses of brightness down, 3 expected"
fi
check "the desk saw no violation" bash -c '! grep -qi violation "$0"' "$WORK/lumora.log"

finish
