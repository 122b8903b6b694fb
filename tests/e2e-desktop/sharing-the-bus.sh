#!/usr/bin/env bash
# End to end, three programs on the same monitors' buses: the tray application (driven over the session bus, as a
# shortcut would drive it), the probe setting every monitor, run again and again meanwhile, and a program of the
# test's own that takes a bus the way other DDC/CI programs on Linux do (an exclusive flock on /dev/i2c-N) and
# never lets go. On the virtual desk's realistic monitors, checked on the desk's trace of every transfer:
#
#   - no exchange of one program falls inside another's: between a Get request and the read of its reply, and
#     between a Set and its repeat, nothing from another descriptor reaches that bus;
#   - the holder costs the held monitor's operations a failed attempt each (about a second), not a stuck queue:
#     the other monitor takes its values meanwhile, the probe ends, and the held monitor takes the tray's next
#     value as soon as the bus is let go.
#
#   sharing-the-bus.sh LUMORA VIRTUAL_DESK ARTIFACT_DIR
#
# Exit status: 0 passed, 1 failed, 77 skipped (no Xvfb). Logs stay in ARTIFACT_DIR.
set -uo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)

# shellcheck source=checks.sh
source "$HERE/checks.sh" "$@"
# shellcheck source=bus-calls.sh
source "$HERE/bus-calls.sh"
command -v flock >/dev/null 2>&1 || { echo "FAIL: flock is missing (util-linux)"; exit 1; }

TRACE=$WORK/lumora.log
HOLDER=""
before_cleanup() { [[ -n $HOLDER ]] && kill -- -"$HOLDER" 2>/dev/null; }
# in_desk COMMAND...: COMMAND on the tray application's desk, under the same emulation (umockdev's preload and
# test bed, which the tray application's start wrote down).
in_desk() { env $(cat "$WORK/desk.env") "$@"; }
probe() { in_desk LUMORA_PROBE=1 LUMORA_PROBE_SET="$1" DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent "$LUMORA"; }
sets_of() { grep -F "\"connector\":\"$1\"" "$TRACE" | grep -F '"request":"set"' | grep -cF "\"value\":$2,"; }

step "desktop: Xvfb, openbox, trayer, a session bus"
start_desktop
session_bus "$WORK" || abort "no session bus"

step "the tray application on the default desk (DP-1 and HDMI-A-1: realistic monitors)"
rm -f "$WORK/control"
"$VIRTUAL_DESK" --control "$WORK/control" --trace -- \
    bash -c 'env | grep -E "^(LD_PRELOAD|UMOCKDEV_DIR|ASAN_OPTIONS)=" >"$0.tmp" && mv "$0.tmp" "$0" && exec "$@"' \
    "$WORK/desk.env" "$LUMORA" >"$TRACE" 2>&1 &
APP_PID=$!
session_track "$APP_PID"
listed() { [[ $(client displays 2>/dev/null | wc -l) -eq 3 ]]; }
wait_until 30 listed || abort "lumora never listed the three displays"
test -s "$WORK/desk.env" || abort "the desk's emulation was not written down"
pass "lumora serves three displays"

step "the tray application and four probes at once, each setting both monitors"
(
    for value in 20 80 35 65; do
        probe "$value" >>"$WORK/probes.log" 2>&1 || echo "probe $value failed" >>"$WORK/probes.log"
    done
) &
PROBES=$!
session_track "$PROBES"
for i in $(seq 1 30); do
    call SetBrightness 103 "0.$(( 10 + i * 3 ))" >/dev/null
    call SetBrightness 110 "0.$(( 95 - i * 2 ))" >/dev/null
    (( i % 10 == 0 )) && call Refresh >/dev/null
    sleep 0.05
done
check "the probes ended" wait_until 60 bash -c '! kill -0 "$0" 2>/dev/null' "$PROBES"
check "every probe ran through" bash -c '! grep -q "failed" "$0" && [[ $(grep -c "^Displays: 3" "$0") == 4 ]]' \
    "$WORK/probes.log"
# The probes' values and the tray's were all sent; where they landed last depends on who came last.
check "each probe set both monitors" bash -c \
    'for v in 20 80 35 65; do for c in card0-DP-1 card0-HDMI-A-1; do
         [[ $(grep -F "\"connector\":\"$c\"" "$0" | grep -F "\"request\":\"set\"" | grep -cF "\"value\":$v,") -ge 2 ]] || exit 1
     done; done' "$TRACE"

step "a program that takes HDMI-A-1's bus and never lets go"
HOLDER_LOG=$WORK/holder.log
# In a process group of its own, so that the lock's holder and its command go together.
setsid env $(cat "$WORK/desk.env") flock --exclusive --close /dev/i2c-3 bash -c 'echo held; exec sleep 300' \
    >"$HOLDER_LOG" 2>&1 &
HOLDER=$!
session_track "$HOLDER"
wait_until 10 grep -q held "$HOLDER_LOG" || abort "the holder did not get the lock"
held_since=$(grep -c . "$TRACE")
call SetBrightness 110 0.33 >/dev/null
call SetBrightness 103 0.44 >/dev/null
check "DP-1 takes its value while HDMI-A-1's bus is held" wait_until 5 equals 44 desk_value brightness card0-DP-1
started=$(now_ms)
probe 50 >"$WORK/held-probe.log" 2>&1
took=$(( $(now_ms) - started ))
echo "   the probe took $took ms with one bus held"
check "the probe ends within a few seconds, HDMI-A-1 unread, DP-1 set" bash -c \
    '(( $0 < 6000 )) && grep -q "LG HDR 4K (external/DDC) brightness=n/a" "$1" && [[ $(grep -c "set 50%" "$1") == 3 ]]' \
    "$took" "$WORK/held-probe.log"
check "DP-1 at the probe's value" wait_until 5 equals 50 desk_value brightness card0-DP-1
check "nothing reached HDMI-A-1 while its bus was held" bash -c \
    '! tail -n +"$1" "$0" | grep -F "\"connector\":\"card0-HDMI-A-1\"" | grep -q .' "$TRACE" "$(( held_since + 1 ))"

step "the bus let go: the held monitor's queue goes on"
kill -- -"$HOLDER" 2>/dev/null
wait "$HOLDER" 2>/dev/null
call SetBrightness 110 0.61 >/dev/null
check "HDMI-A-1 takes the tray's next value" wait_until 5 equals 61 desk_value brightness card0-HDMI-A-1
check "the held value 33 never reached it" test "$(sets_of card0-HDMI-A-1 33)" == 0

step "the desk's rules"
check "the virtual desk saw no violation" bash -c '! grep -q "VIOLATION" "$0"' "$TRACE"
# Each exchange is a Get request to the read of its reply, or a Set to its repeat, from one descriptor ("client");
# nothing from another descriptor may reach that bus in between.
interleaved()
{
    /usr/bin/python3 - "$TRACE" <<'EOF'
import json, sys
open_exchange = {}  # (bus, client) -> (kind, bytes, t)
bad = 0
messages = [json.loads(l.split("virtual desk: ", 1)[1]) for l in open(sys.argv[1]) if "virtual desk: {" in l]
for m in messages:
    if m.get("addr") != "0x37":
        continue
    bus, client = m["bus"], m["client"]
    for (b, c), (kind, sent, t) in open_exchange.items():
        if b == bus and c != client:
            print(f"   bus {bus}: client {client} at {m['t']} us inside client {c}'s {kind} from {t} us")
            bad += 1
    key = (bus, client)
    if key in open_exchange:
        kind, sent, _ = open_exchange[key]
        if (kind == "get" and m["dir"] == "read") or (kind == "set" and m["dir"] == "write" and m["bytes"] == sent):
            del open_exchange[key]
            continue
    if m["dir"] == "write" and m.get("request") in ("get", "set"):
        open_exchange[key] = (m["request"], m["bytes"], m["t"])
print(f"   {len(messages)} transfers, {bad} inside another program's exchange")
sys.exit(1 if bad else 0)
EOF
}
check "no exchange fell inside another's" interleaved

finish
