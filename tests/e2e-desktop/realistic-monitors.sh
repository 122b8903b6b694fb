#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Monitors that behave as real ones do (NAK while busy, null messages, silent in standby, 1.5 s to wake) on the desk's
# trace of every transfer; then the tray application, probes and a program holding a bus's lock share the buses.
#   realistic-monitors.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR
set -uo pipefail
source "$(dirname "$0")/checks.sh" "$@"
command -v flock >/dev/null 2>&1 || abort "flock is missing (util-linux)"
TRACE=$WORK/lumora.log
# wire CONNECTOR REQUEST [CODE]: the trace lines of one kind of transfer to one monitor, oldest first (from line FROM).
wire() { tail -n +"${FROM:-1}" "$TRACE" | grep -F "\"connector\":\"$1\"" | grep -F "\"request\":\"$2\"" | grep -F "\"code\":\"${3:-0x10}\""; }
last_sent() { wire "$1" set | tail -1 | sed 's/.*"value":\([0-9]*\).*/\1/'; }
count() { "$@" | wc -l; }
reads() { count wire "$1" get; }
settled() {  # CONNECTOR: it holds the last value sent to it, and nothing new went out for half a second
    local before=$(count wire "$1" set) sent=$(last_sent "$1") held=$(desk_value brightness "$1") && sleep 0.5
    [[ -n $sent && $sent == "$held" && $(count wire "$1" set) == "$before" && $(desk_value brightness "$1") == "$held" ]]
}
HOLDER="" && before_cleanup() { [[ -z $HOLDER ]] || kill -- -"$HOLDER" 2>/dev/null; }
probe() { env $(cat "$WORK/desk.env") LUMORA_PROBE=1 LUMORA_PROBE_SET="$1" DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent "$LUMORA"; }
step "desktop: Xvfb, openbox, trayer, a session bus; logind (python-dbusmock) on a private system bus"
start_desktop
mkdir "$WORK/system" && session_bus "$WORK/system" || abort "no private system bus"
export DBUS_SYSTEM_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS
session_bus "$WORK" || abort "no session bus"
/usr/bin/python3 -m dbusmock --system --template logind >"$WORK/logind.log" 2>&1 & session_track $!
timeout 30 gdbus wait --system --timeout 25 org.freedesktop.login1 || abort "the mock logind did not come up"
step "lumora on the default desk (DP-1 and HDMI-A-1 realistic), writing down its emulation for the probe"
"$VIRTUAL_DESK" --control "$WORK/control" --trace -- \
    bash -c 'env | grep -E "^(LD_PRELOAD|UMOCKDEV_DIR|ASAN_OPTIONS)=" >"$0.tmp" && mv "$0.tmp" "$0" && exec "$@"' \
    "$WORK/desk.env" "$LUMORA" >"$TRACE" 2>&1 &
APP_PID=$! && session_track $APP_PID
find_icon 30 && open_panel && wait_until 10 equals 3 panel_rows || abort "no panel of three rows after a click on the icon"
shot 01-panel
mapfile -t ROWS < <(slider_rows "$ARTIFACTS/01-panel.png" "$PX" "$PY" "$PH") && CONNECTORS=(card0-DP-1 card0-HDMI-A-1)
# drags N: N drags on a random row, random place to random end; then the monitor holds where the slider was let go.
drags() {
    local i row c from to f sent wrong=0
    for (( i = 1; i <= $1; i++ )); do
        row=$(( RANDOM % 2 )) from=$(( 5 + RANDOM % 91 )) to=$(( 5 + RANDOM % 91 )) && c=${CONNECTORS[$row]}
        xdotool mousemove "$(groove_x "$from")" "${ROWS[$row]}" mousedown 1
        for f in {1..8}; do xdotool mousemove "$(groove_x $(( from + (to - from) * f / 8 )))" "${ROWS[$row]}"; sleep 0.03; done
        xdotool mouseup 1
        # Within what the mapping of pixels to the slider's range allows.
        wait_until 15 settled "$c" && sent=$(last_sent "$c") && (( sent >= to - 6 && sent <= to + 6 )) || { wrong=$(( wrong + 1 ))
            echo "   drag $i on $c to $to%: sent $(last_sent "$c") last, the monitor holds $(desk_value brightness "$c")"; }
    done
    echo "   $1 drags, $wrong wrong" && (( wrong == 0 ))
}
step "20 slider drags on monitors that NAK while busy, 20 on monitors that take and ignore what comes then"
check "every monitor at the slider's final value after every drag (NAKing)" drags 20
each_monitor() { local c; for c in "${CONNECTORS[@]}"; do desk "$1" "$c" "${@:2}" >/dev/null; done; }
each_monitor fault nakWhileBusy=0 dropWhileBusy=1
check "every monitor at the slider's final value after every drag (ignoring)" drags 20
each_monitor fault nakWhileBusy=1 dropWhileBusy=0
step "standby with the power button, past the refresh 2 s later, and the button again"
KEPT=$(desk_value brightness card0-DP-1)
read -r POWER_X POWER_Y < <(power_button "${ROWS[0]}")
power_asks=$(count wire card0-DP-1 get 0xD6)
after 'xdotool mousemove "$POWER_X" "$POWER_Y" click 1' "DP-1 in standby (D6 = 04), the panel still up after a click in it" \
    "4 shown" eval 'echo $(desk_value power card0-DP-1) $(panel_state)'
# The refresh after the toggle asks the sleeping monitor, which answers nothing, five times for its power mode.
check "the refresh after the toggle asked DP-1 for its power mode" \
    wait_until 15 eval '(( $(count wire card0-DP-1 get 0xD6) >= power_asks + 5 ))'
sleep 0.5 && sets_before=$(count wire card0-DP-1 set)  # the refresh publishes a moment after its last read
after 'xdotool mousemove "$POWER_X" "$POWER_Y" click 1' "DP-1 on again (D6 = 01)" 1 desk_value power card0-DP-1
# What counts is that the wake's restore reached the monitor while it ignored requests for 1.5 s after waking.
restored() { wire card0-DP-1 set | tail -n +$(( sets_before + 1 )) | grep -F "\"value\":$KEPT," | grep -qF '"outcome":"ok"'; }
check "DP-1 took its kept brightness ($KEPT) after waking, holds it, and is still on" \
    wait_until 15 eval 'restored && [[ $(monitor card0-DP-1) == "$KEPT 1" ]]'
step "a monitor whose first two replies are null messages reads its true value"
after click_icon "the panel closes" hidden panel_state
# Both monitors at one value by their own buttons, a value neither shows now; only HDMI-A-1 sends null messages.
VALUE=30 && for c in "${CONNECTORS[@]}"; do held=$(desk_value brightness "$c"); (( held > 25 && held < 35 )) && VALUE=70; done
nulls() { grep -F '"connector":"card0-HDMI-A-1"' "$TRACE" | grep -cF '"request":"null"'; }
nulls_before=$(nulls)  # (grep -c: status 1 while there are none)
each_monitor brightness $VALUE
desk fault card0-HDMI-A-1 nullReplies=2 >/dev/null
open_panel || fail "the panel did not open"
fill_end() {  # FILE Y: the right end of the filled (bluish) part of the groove on row Y
    session_convert "$1" -crop "221x1+$(groove_x 0)+$2" +repage -depth 8 txt:- |
        awk -F'[ ,:()]+' -v left="$(groove_x 0)" 'NR > 1 && $5 > 140 && $5 > $3 + 60 { last = $1 } END { print left + last }'
}
same_rows() { screenshot "$WORK/null.png"; [[ $(fill_end "$WORK/null.png" "${ROWS[0]}") == $(fill_end "$WORK/null.png" "${ROWS[1]}") ]]; }
check "HDMI-A-1 answered two reads with null messages" wait_until 10 eval '(( $(nulls) >= nulls_before + 2 ))'
check "both rows show $VALUE % (the HDMI row beside the DP row)" wait_until 10 same_rows
after click_icon "the panel closes" hidden panel_state
step "resume from suspend: every monitor is read at once, and again a few seconds later"
sleep 0.5
read_again() { (( $(reads card0-DP-1) > $1 && $(reads card0-HDMI-A-1) > $2 )); }
dp_reads=$(reads card0-DP-1) hdmi_reads=$(reads card0-HDMI-A-1) resumed=$(now_ms)
timeout 20 gdbus call --system --dest org.freedesktop.login1 --object-path /org/freedesktop/login1 --method \
    org.freedesktop.DBus.Mock.EmitSignal org.freedesktop.login1.Manager PrepareForSleep b '[<false>]' >/dev/null ||
    fail "could not emit PrepareForSleep(false)"
check "both monitors read after the resume" wait_until 10 read_again "$dp_reads" "$hdmi_reads"
dp_reads=$(reads card0-DP-1) hdmi_reads=$(reads card0-HDMI-A-1)
check "and again a few seconds later" wait_until 15 read_again "$dp_reads" "$hdmi_reads"
check "the second read came at least 2 s after the signal" eval '(( $(now_ms) - resumed >= 2000 ))'
step "the tray application and four probes at once, each setting both monitors"
wait_until 10 listed || abort "lumora does not serve three displays"
probes_from=$(grep -c . "$TRACE")
( for v in 20 80 35 65; do probe "$v" >>"$WORK/probes.log" 2>&1 || echo "probe $v failed" >>"$WORK/probes.log"; done ) &
PROBES=$! && session_track "$PROBES"
for i in $(seq 1 30); do call SetBrightness 103 "0.$(( 10 + i * 3 ))" >/dev/null; call SetBrightness 110 "0.$(( 95 - i * 2 ))" >/dev/null
    (( i % 10 )) || call Refresh >/dev/null; sleep 0.05; done
check "the probes ended, every one ran through" wait_until 60 eval \
    'ended $PROBES && ! grep -q failed "$WORK/probes.log" && [[ $(grep -c "^Displays: 3" "$WORK/probes.log") == 4 ]]'
# The probes' values and the tray's were all sent; where they landed last depends on who came last.
each_probe_set() { local v c; for v in 20 80 35 65; do for c in "${CONNECTORS[@]}"; do
    (( $(FROM=$probes_from wire "$c" set | grep -cF "\"value\":$v,") >= 2 )) || return 1; done; done; }
check "each probe set both monitors" each_probe_set
step "a program takes HDMI-A-1's bus and never lets go; then lets it go"
# In a process group of its own, so that the lock's holder and its command go together.
setsid env $(cat "$WORK/desk.env") flock --exclusive --close /dev/i2c-3 bash -c 'echo held; exec sleep 300' \
    >"$WORK/holder.log" 2>&1 &
HOLDER=$! && session_track "$HOLDER"
wait_until 10 grep -q held "$WORK/holder.log" || abort "the holder did not get the lock"
held_since=$(grep -c . "$TRACE")
after "call SetBrightness 110 0.33; call SetBrightness 103 0.44" "DP-1 takes its value while HDMI-A-1's bus is held" 44 \
    desk_value brightness card0-DP-1
started=$(now_ms) && probe 50 >"$WORK/held-probe.log" 2>&1; took=$(( $(now_ms) - started ))
check "the probe ends within a few seconds ($took ms), HDMI-A-1 unread, DP-1 set" bash -c \
    '(( $0 < 6000 )) && grep -q "LG HDR 4K (external/DDC) brightness=n/a" "$1" && [[ $(grep -c "set 50%" "$1") == 3 ]]' \
    "$took" "$WORK/held-probe.log"
check "DP-1 at the probe's value" wait_until 5 equals 50 desk_value brightness card0-DP-1
check "nothing reached HDMI-A-1 while its bus was held" \
    bash -c '! tail -n +"$1" "$0" | grep -qF "\"connector\":\"card0-HDMI-A-1\""' "$TRACE" $(( held_since + 1 ))
after '{ kill -- -"$HOLDER"; wait "$HOLDER"; } 2>/dev/null; call SetBrightness 110 0.61' "let go, HDMI-A-1 takes the tray's next value" 61 desk_value brightness card0-HDMI-A-1
check "the held value 33 never reached it" equals 0 eval 'FROM=$held_since wire card0-HDMI-A-1 set | grep -cF "\"value\":33,"'
step "the desk's rules"
check "the virtual desk saw no violation (such as a write to an address but 0x37)" equals 0 desk_value violations
# An exchange (a Get request to its reply's read, a Set to its repeat) from one descriptor: no other's inside it.
check "no exchange fell inside another's" /usr/bin/python3 - "$TRACE" <<'EOF'
import json, sys
exchanges, bad = {}, 0  # (bus, client) -> (kind, bytes, t)
messages = [json.loads(l.split("virtual desk: ", 1)[1]) for l in open(sys.argv[1]) if "virtual desk: {" in l]
for m in (m for m in messages if m.get("addr") == "0x37"):
    key = (m["bus"], m["client"])
    for (bus, client), (kind, sent, t) in exchanges.items():
        if bus == key[0] and client != key[1]:
            print(f"   bus {bus}: client {key[1]} at {m['t']} us inside client {client}'s {kind} from {t} us")
            bad += 1
    if key in exchanges:
        kind, sent, _ = exchanges[key]
        if (kind == "get" and m["dir"] == "read") or (kind == "set" and m["dir"] == "write" and m["bytes"] == sent):
            del exchanges[key]
            continue
    if m["dir"] == "write" and m.get("request") in ("get", "set"):
        exchanges[key] = (m["request"], m["bytes"], m["t"])
print(f"   {len(messages)} transfers, {bad} inside another program's exchange")
sys.exit(1 if bad else 0)
EOF
finish
