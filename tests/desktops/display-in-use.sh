#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# display-in-use.sh DESKTOP LUMORA VIRTUAL_DESK ARTIFACT_DIR: the monitor the user works on, on a Wayland desktop
# with two outputs whose names the desk's connectors carry (lumora pairs them as on a real desk). With a native
# window, then an X11 one, on one output and the pointer on the other, StepDisplayInUse and a brightness key (through
# LUMORA's key service) act on that output's monitor; the on-screen display shows there and the window keeps the
# focus; the letters typed between the keys reach the desktop in order. Prints a call's and a key's time.
set -uo pipefail
EXTRA_TOOLS="weston-terminal xev"
# shellcheck source=frame.sh
source "$(dirname "$0")/frame.sh"
SOURCE=$(cd "$HERE/../.." && pwd)
LUMORA_KEYS=$(cd "$(dirname "$LUMORA")/.." && pwd)/LumoraKeys/lumora-keys
[[ -x $LUMORA_KEYS ]] || { echo "SKIP: no key service at $LUMORA_KEYS"; exit 77; }
[[ -n ${OUTPUT_NAMES:-} ]] || { echo "SKIP: no display-in-use scenario for $DESKTOP"; exit 77; }
OUT1=${OUTPUT_NAMES[0]} OUT2=${OUTPUT_NAMES[1]} OUTPUT_WIDTH=${OUTPUT_WIDTH:-1280} NATIVE="Wayland Terminal" X11="X Window"

# Two monitors on the outputs' connectors, each with its own DDC channel.
cat >"$WORK/desk.json" <<DESK && chmod 644 "$WORK/desk.json"
{ "cards": [ { "connectors": [
  { "name": "$OUT1", "connectorId": 201, "edid": { "vendor": "DEL", "model": "0xA0C4", "serial": 1280012594, "name": "DELL U2720Q" }, "ddc": { "bus": 5 }, "monitor": { "current": 50 } },
  { "name": "$OUT2", "connectorId": 202, "edid": { "vendor": "GSM", "model": "0x5B09", "serial": 369841, "name": "LG HDR 4K" }, "ddc": { "bus": 6 }, "monitor": { "current": 70 } } ] } ],
  "keyboards": [ { "name": "AT Translated Set 2 keyboard", "kind": "laptop" } ] }
DESK

desk() { "$VIRTUAL_DESK" --send "$SESSION_OUT/control" "$@"; }
desk_value() { desk "$@" | awk '$1 == "ok" {print $2}'; }
brightness() { desk_value brightness "card0-$1"; }
lumora() { as_user timeout -k 2 20 gdbus call --session --dest org.lumora.Lumora --object-path /org/lumora/Lumora --method "$@"; }
call() { lumora "org.lumora.Lumora1.$1" -- "${@:2}" >/dev/null; }
listed() { local shown; shown=$(lumora org.freedesktop.DBus.Properties.Get org.lumora.Lumora1 Displays 2>/dev/null)
           [[ $shown == *"DELL U2720Q"* && $shown == *"LG HDR 4K"* ]]; }

step "$DESKTOP_NAME with two outputs, $OUT1 and $OUT2 side by side"
# Lumora's extension, as the package installs it, enabled as a user enables it.
[[ ${DESKTOP%%-*} == gnome ]] && mkdir -p "$WORK/home/.local/share/gnome-shell/extensions" &&
    cp -r "$SOURCE/data/gnome-shell-extension/lumora@lumora.org" "$WORK/home/.local/share/gnome-shell/extensions/"
desktop_start "$WORK" 2 || abort "the desktop did not start"
[[ ${DESKTOP%%-*} == gnome ]] && as_user gsettings set org.gnome.shell enabled-extensions "['$GNOME_TEST_EXTENSION', 'lumora@lumora.org']"
# sway moves the focus to the output the pointer enters unless told not to; the window keeps it, as elsewhere.
[[ ${DESKTOP%%-*} == sway ]] && as_user swaymsg focus_follows_mouse no >/dev/null

step "the key service on a system bus of the test's own; lumora on the virtual desk, in the session"
# Both under the desk (its keyboards, its /dev/uinput); python-dbusmock's logind and polkit make lumora the active
# session's client. The desk runs as the test user: the bus's copy of the policy grants that user what root has.
mkdir -p "$WORK/keys" "$WORK/home/.config/Lumora"
sed 's|<policy user="root">|<policy user="'"$DESKTOP_USER"'"><allow own="org.freedesktop.login1"/><allow own="org.freedesktop.PolicyKit1"/><allow send_destination="org.freedesktop.login1"/><allow send_destination="org.freedesktop.PolicyKit1"/>|' \
    "$SOURCE/data/org.lumora.Keys.conf" >"$WORK/keys.conf"
printf '[General]\nuseF1F2ForExternalBrightness=true\n' >"$WORK/home/.config/Lumora/Lumora.conf"
chown -R "$DESKTOP_USER:" "$WORK/keys" "$WORK/keys.conf" "$WORK/home/.config"
start_lumora keyed --desk "$WORK/desk.json" --log "$SESSION_OUT/desk.jsonl" -- bash -c '
    /usr/bin/python3 "$1" "$2" "$3" "$4" >"$2/address" &
    for _ in $(seq 600); do [[ -s $2/address ]] && break; sleep 0.05; done
    DBUS_SYSTEM_BUS_ADDRESS=$(cat "$2/address") exec "$5"' \
    _ "$SOURCE/tests/support/key-service-bus.py" "$WORK/keys" "$LUMORA_KEYS" "$WORK/keys.conf" "$LUMORA"
wait_until 30 listed || abort "Displays never listed both monitors"
check "the key service has taken the laptop keyboard" wait_until 20 equals 1 desk_value grabbed event0

# stepped FROM SIGN OUTPUT: the monitor on OUTPUT is a sixteenth (6.25) from FROM that way.
stepped() { local d=$(( $(brightness "$3") - $1 )); (( ${2}d >= 6 && ${2}d <= 7 )); }
# press KEY: a press and release on the laptop keyboard; typed LETTER...: each pressed, to reach the desktop.
press() { desk key event0 "$1" 1 >/dev/null && desk key event0 "$1" 0 >/dev/null; }
brightness_key() { echo "KEY_BRIGHTNESS$([[ $1 == + ]] && echo UP || echo DOWN)"; }
TYPED=""; typed() { local l; for l in "$@"; do press "KEY_$l" && TYPED+=$l; done; }
osd_up() { desktop_screenshot "$WORK/osd.png" && osd_shown "$1"; }
# works_on N POINTER_X SIGN: with the window on output N and focused, the pointer on the other output,
# StepDisplayInUse and a brightness key that way (letters typed around it) each step output N's monitor by a
# sixteenth and leave the other's alone; the on-screen display shows on output N and the window keeps the focus.
works_on()
{
    local n=$1 out=OUT$1 other=OUT$(( 3 - $1 )) key kept from
    key=$(brightness_key "$3") out=${!out} other=${!other}
    step "$WINDOW on $out, the pointer on $other: StepDisplayInUse(${3}0.0625), then $key"
    window_to "$n" || abort "the window did not move to $out"
    desktop_move "$2" 400
    kept=$(brightness "$other") from=$(brightness "$out")
    check "StepDisplayInUse answers" call StepDisplayInUse "${3}0.0625"
    declare -F osd_shown >/dev/null && check "the on-screen display is up on $out" wait_until 5 osd_up "$n"   # first: up 1.5 s only
    check "the monitor on $out steps $3 from $from" wait_until 10 stepped "$from" "$3" "$out"
    declare -F window_focused >/dev/null && check "$WINDOW keeps the focus" window_focused
    cp "$WORK/osd.png" "$ARTIFACTS/osd-on-output-$n.png" 2>/dev/null
    typed H E L L O
    from=$(brightness "$out")
    press "$key"
    check "$key steps the monitor on $out from $from" wait_until 10 stepped "$from" "$3" "$out"
    typed W O R L D
    check "the monitor on $other stays at $kept" equals "$kept" brightness "$other"
}

# The window the user works in: a native Wayland one, then (the terminal closed) an X11 one through XWayland.
for WINDOW in "$NATIVE" "$X11"; do
    step "the window \"$WINDOW\""
    if [[ $WINDOW == "$NATIVE" ]]; then desktop_run weston-terminal
    else kill -TERM -- "-$SPAWNED"; desktop_run xev -rv -name "$X11" -geometry 700x500; fi
    wait_until 20 window_shown || abort "no window titled $WINDOW"
    works_on 2 300 +
    works_on 1 $(( OUTPUT_WIDTH + 300 )) -
done

step "a brightness key until its value is on the wire, 20 keys (the desk's log)"
for (( i = 0; i < 20; i++ )); do
    from=$(brightness "$OUT1") sign=$( (( i % 2 )) && echo - || echo +)
    press "$(brightness_key $sign)"
    wait_until 10 stepped "$from" "$sign" "$OUT1" || { fail "key $i did not reach the monitor"; break; }
done

step "the time of a StepDisplayInUse call (gdbus included), 20 calls"
sorted=$(for (( i = 0; i < 20; i++ )); do t0=$(now_ms); call StepDisplayInUse 0; echo $(( $(now_ms) - t0 )); done | sort -n)
figure "StepDisplayInUse through gdbus on $DESKTOP_NAME: median $(sed -n 10p <<<"$sorted") ms, worst $(tail -1 <<<"$sorted") ms"

step "the lookup a brightness key waits for, and the on-screen display until painted (bench_display_in_use)"
BENCH=$(dirname "$LUMORA")/../bench/display-in-use/bench_display_in_use
[[ -x $BENCH ]] || echo "   (no $BENCH: built with the benchmarks only)"
[[ -x $BENCH ]] && { RUN_LOG="$WORK/bench.log" desktop_run "$VIRTUAL_DESK" --desk "$WORK/desk.json" -- "$(realpath "$BENCH")"
    ended "$SPAWNED" 120 || fail "the benchmark took over 2 minutes"; wait "$SPAWNED" 2>/dev/null
    grep -h "figure:\|rror\|Sanitizer" "$WORK/bench.log" | sed "s/^/   /"; }

step "what the desktop got from the laptop keyboard's twin (the desk's log, written as lumora ends)"
# The compositors read the machine's own input devices, never the desk's: what the key service forwards to its
# twin is what a desktop would get, and the focus checks above show the window kept it.
kill -TERM "$APP_PID" 2>/dev/null
wait_until 20 test -s "$SESSION_OUT/desk.jsonl" || abort "the desk wrote no log"
{ read -r got brightness_presses; read -r took; } < <(/usr/bin/python3 -c '
import json, sys
rs = [json.loads(l) for l in open(sys.argv[1])]
out = [r for r in rs if r.get("what") == "write" and r.get("type") == "EV_KEY" and r["value"] == 1]
print("".join(r["code"][4:] for r in out if len(r["code"]) == 5) or "-",
      sum(r["code"].startswith("KEY_BRIGHTNESS") for r in out))
keys = [r["t"] for r in rs if r.get("what") == "key" and r["code"].startswith("KEY_BRIGHTNESS") and r["value"] == 1]
sets = sorted(r["t"] for r in rs if r.get("request") == "set")
took = sorted(min(s for s in sets if s >= k) - k for k in keys if sets and sets[-1] >= k)
print(f"median {took[len(took) // 2] / 1000:.1f} ms, worst {took[-1] / 1000:.1f} ms ({len(took)} keys)" if took else "-")
' "$SESSION_OUT/desk.jsonl")
figure "a brightness key until its value is on the wire on $DESKTOP_NAME: $took"
check "the letters typed went on in order ($got)" test "$got" == "$TYPED"
check "no press of a brightness key Lumora acted on went on ($brightness_presses)" test "$brightness_presses" -eq 0
finish
