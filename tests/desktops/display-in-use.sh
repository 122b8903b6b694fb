#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# The monitor the user works on, on a real Wayland desktop started headless: two outputs, the virtual desk's
# connectors named as the compositor names its outputs (so that the unmodified lumora pairs each with its output as
# on a real desk), a window the user works in: a native Wayland one (weston-terminal), then an X11 one (xev, through
# XWayland). StepDisplayInUse, as a desktop shortcut calls it, and a brightness key on the desk's laptop keyboard
# (through the key service, on a system bus of the test's own) must act on the monitor holding the window, wherever
# the pointer is; the on-screen display must show on that monitor and leave the window the focus; the letters typed
# between the keys must reach the desktop in order. Prints the time of a StepDisplayInUse call and of a key until
# its value is on the wire.
#
#   display-in-use.sh DESKTOP LUMORA VIRTUAL_DESK ARTIFACT_DIR
#
# DESKTOP: sway, gnome (with Lumora's GNOME Shell extension), kde (KWin and plasmashell; there the window is moved by
# a KWin script of the test's, and neither the focus nor Plasma's on-screen display is read back). Needs root (the
# desktops run as a test user). The key service is the one of LUMORA's build (LumoraKeys/lumora-keys beside it).
# Exit status: 0 passed, 1 failed, 77 skipped. Screenshots and logs stay in ARTIFACTS.
set -uo pipefail

DESKTOP=$1
LUMORA=$(realpath "$2")
VIRTUAL_DESK=$(realpath "$3")
ARTIFACTS=$4
EXTRA_TOOLS="weston-terminal xev"
# shellcheck source=frame.sh
source "$(dirname "$0")/frame.sh"
SOURCE=$(cd "$HERE/../.." && pwd)
LUMORA_KEYS=$(cd "$(dirname "$LUMORA")/.." && pwd)/LumoraKeys/lumora-keys
[[ -x $LUMORA_KEYS ]] || { echo "SKIP: no key service at $LUMORA_KEYS"; exit 77; }
equals() { [[ "$("${@:2}")" == "$1" ]]; }

# The outputs' names, as this compositor gives them, and their width.
OUTPUT_WIDTH=1280
case ${DESKTOP%%-*} in
    sway) OUT1=HEADLESS-1 OUT2=HEADLESS-2 ;;
    gnome) OUT1=Meta-0 OUT2=Meta-1 ;;
    kde) OUT1=Virtual-0 OUT2=Virtual-1 OUTPUT_WIDTH=2560 ;;  # KWin's virtual outputs take the whole --width each
    *) echo "SKIP: no display-in-use scenario for $DESKTOP"; exit 77 ;;
esac

# Two monitors on the outputs' connectors, each with its own DDC channel.
cat >"$WORK/desk.json" <<DESK
{ "cards": [ { "connectors": [
    { "name": "$OUT1", "connectorId": 201, "edid": { "vendor": "DEL", "model": "0xA0C4", "serial": 1280012594, "name": "DELL U2720Q" },
      "ddc": { "bus": 5 }, "monitor": { "current": 50 } },
    { "name": "$OUT2", "connectorId": 202, "edid": { "vendor": "GSM", "model": "0x5B09", "serial": 369841, "name": "LG HDR 4K" },
      "ddc": { "bus": 6 }, "monitor": { "current": 70 } } ] } ],
  "keyboards": [ { "name": "AT Translated Set 2 keyboard", "kind": "laptop" } ] }
DESK
chmod 644 "$WORK/desk.json"

desk() { "$VIRTUAL_DESK" --send "$SESSION_OUT/control" "$@"; }
desk_value() { desk "$@" | awk '$1 == "ok" {print $2}'; }
brightness() { desk_value brightness "card0-$1"; }
call() { as_user timeout -k 2 20 gdbus call --session --dest org.lumora.Lumora --object-path /org/lumora/Lumora \
    --method "org.lumora.Lumora1.$1" -- "${@:2}" >/dev/null; }
listed()
{
    local shown
    shown=$(as_user timeout -k 2 10 gdbus call --session --dest org.lumora.Lumora --object-path /org/lumora/Lumora \
        --method org.freedesktop.DBus.Properties.Get org.lumora.Lumora1 Displays 2>/dev/null)
    [[ $shown == *"DELL U2720Q"* && $shown == *"LG HDR 4K"* ]]
}

# The window the user works in, by its title (WINDOW): shown, moved onto output N (and focused there), focused.
NATIVE="Wayland Terminal" X11="X Window"
case ${DESKTOP%%-*} in
    sway)
        window_shown() { as_user swaymsg -t get_tree | grep -q "\"name\": \"$WINDOW\""; }
        window_to() { as_user swaymsg "[title=\"^$WINDOW\$\"] move to output HEADLESS-$1, focus" >/dev/null; }
        window_focused()
        {
            as_user swaymsg -t get_tree | python3 -c '
import json, sys
def focused(n):
    if n.get("focused"): return n
    for c in n.get("nodes", []) + n.get("floating_nodes", []):
        f = focused(c)
        if f: return f
print((focused(json.load(sys.stdin)) or {}).get("name"))' | grep -qx "$WINDOW"
        }
        ;;
    gnome)
        the_window() { echo "global.get_window_actors().map(a => a.meta_window).find(w => w.get_title() === '$WINDOW')"; }
        window_shown() { [[ $(gnome_eval "!!$(the_window)") == true ]]; }
        # Onto the output, 700 of its 742 pixels across it, and focused; asked again until it is there (a window
        # just mapped is still placed by the shell, which may undo the first move).
        window_moved_to()
        {
            local x=$(( ($1 - 1) * 1280 + 200 ))
            # The frame's x before this try's move: there already only when an earlier move held.
            [[ $(gnome_eval "const w = $(the_window); const x = w.get_frame_rect().x;
                             if (x !== $x) w.move_frame(true, $x, 200);
                             w.activate(global.get_current_time()); x") == "$x" ]]
        }
        window_to() { wait_until 10 window_moved_to "$1"; }
        window_focused() { [[ $(gnome_eval "global.display.get_focus_window()?.get_title()") == "$WINDOW" ]]; }
        ;;
    kde)
        # KWin tells other programs nothing of its windows: a KWin script of the test's own moves the window
        # (loaded over org.kde.kwin.Scripting, as Plasma's own scripts are), and KWin's journal is not read back.
        kwin_script()
        {
            local file="$SESSION_OUT/move-$RANDOM.js" name="lumora-test-$RANDOM" id
            echo "$1" >"$file" && chmod 644 "$file"
            id=$(as_user gdbus call --session --dest org.kde.KWin --object-path /Scripting \
                --method org.kde.kwin.Scripting.loadScript "$file" "$name" | tr -dc '0-9') || return 1
            as_user gdbus call --session --dest org.kde.KWin --object-path "/Scripting/Script$id" \
                --method org.kde.kwin.Script.run >/dev/null 2>&1 ||
                as_user gdbus call --session --dest org.kde.KWin --object-path "/$id" \
                    --method org.kde.kwin.Script.run >/dev/null || return 1
            as_user gdbus call --session --dest org.kde.KWin --object-path /Scripting \
                --method org.kde.kwin.Scripting.unloadScript "$name" >/dev/null
        }
        window_shown() { pgrep -u "$DESKTOP_USER" -x "$([[ $WINDOW == "$NATIVE" ]] && echo weston-terminal || echo xev)" >/dev/null; }
        # spot_black N: the screen is black where the window's middle goes on output N (both windows are black,
        # the wallpaper is not).
        spot_black()
        {
            desktop_screenshot "$WORK/moved.png" &&
                session_convert "$WORK/moved.png" -crop "1x1+$(( ($1 - 1) * 2560 + 500 ))+400" +repage -depth 8 txt:- |
                    awk -F'[ ,:()]+' 'NR == 2 { exit !($3 < 20 && $4 < 20 && $5 < 20) }'
        }
        spot_painted() { ! spot_black "$1"; }
        # Moved and activated until the screen shows it there (a window just mapped may not be listed yet; the
        # script finds nothing then), once the wallpaper shows there (an output not yet painted is black too).
        window_moved_to()
        {
            kwin_script "const c = workspace.clientList().find(c => c.caption === '$WINDOW');
                if (c) { const g = c.frameGeometry;
                         c.frameGeometry = {x: $(( ($1 - 1) * 2560 + 200 )), y: 200, width: g.width, height: g.height};
                         workspace.activeClient = c; }" && spot_black "$1"
        }
        window_to() { wait_until 20 spot_painted "$1" && wait_until 20 window_moved_to "$1"; }
        ;;
esac

# osd_lit FILE N: the on-screen display's level bar is lit in the screenshot FILE, low in the middle of output N
# (Lumora's own: 320 x 64, a tenth of the output's height above its bottom edge; its bar 44 pixels down, from 60
# across).
osd_lit()
{
    local x=$(( ($2 - 1) * 1280 + (1280 - 320) / 2 + 64 )) y=$(( 800 - 64 - 80 + 47 ))
    session_convert "$1" -crop "1x1+$x+$y" +repage -depth 8 txt:- |
        awk -F'[ ,:()]+' 'NR == 2 { exit !($3 > 200 && $4 > 200 && $5 > 200) }'
}
# desktop_osd_lit N: the desktop's own on-screen display is up (GNOME's, through Lumora's extension), or Lumora's
# own is lit on output N.
desktop_osd_lit()
{
    desktop_screenshot "$WORK/osd.png" || return 1
    if [[ ${DESKTOP%%-*} == gnome ]]; then
        # One OSD window per monitor, in the monitors' order.
        [[ $(gnome_eval "Main.osdWindowManager._osdWindows.findIndex(w => w.visible)") == $(( $1 - 1 )) ]]
    else
        osd_lit "$WORK/osd.png" "$1"
    fi
}

step "$(desktop_name) with two outputs, $OUT1 and $OUT2 side by side"
[[ ${DESKTOP%%-*} == gnome ]] && {
    # Lumora's extension, as the package installs it, enabled as a user enables it.
    mkdir -p "$WORK/home/.local/share/gnome-shell/extensions"
    cp -r "$SOURCE/data/gnome-shell-extension/lumora@lumora.org" "$WORK/home/.local/share/gnome-shell/extensions/"
}
desktop_start "$WORK" 2 || abort "the desktop did not start"
[[ ${DESKTOP%%-*} == gnome ]] &&
    as_user gsettings set org.gnome.shell enabled-extensions "['$GNOME_TEST_EXTENSION', 'lumora@lumora.org']"
# sway moves the focus to the output the pointer enters, unless told not to: the window keeps it here, as it does
# on the other desktops.
[[ ${DESKTOP%%-*} == sway ]] && as_user swaymsg focus_follows_mouse no >/dev/null

step "the key service on a system bus of the test's own; lumora on the virtual desk, in the session"
# Both under the desk, whose keyboards and /dev/uinput they must see; python-dbusmock's logind and polkit stand in
# for the machine's and make lumora the client of the active session. The desktops, and so the desk, run as the
# test user: the copy of the package's policy the bus takes in grants that user what root has on it (the service's
# name, the stand-ins' names and the calls to them).
mkdir -p "$WORK/keys" "$WORK/home/.config/Lumora"
sed 's|<policy user="root">|<policy user="'"$DESKTOP_USER"'"><allow own="org.freedesktop.login1"/><allow own="org.freedesktop.PolicyKit1"/><allow send_destination="org.freedesktop.login1"/><allow send_destination="org.freedesktop.PolicyKit1"/>|' \
    "$SOURCE/data/org.lumora.Keys.conf" >"$WORK/keys.conf"
printf '[General]\nuseF1F2ForExternalBrightness=true\n' >"$WORK/home/.config/Lumora/Lumora.conf"
chown -R "$DESKTOP_USER:" "$WORK/keys" "$WORK/keys.conf" "$WORK/home/.config"
RUN_LOG="$WORK/lumora.log" desktop_run "$VIRTUAL_DESK" --desk "$WORK/desk.json" --control "$SESSION_OUT/control" \
    --log "$SESSION_OUT/desk.jsonl" -- bash -c '
    /usr/bin/python3 "$1" "$2" "$3" "$4" >"$2/address" &
    for _ in $(seq 600); do [[ -s $2/address ]] && break; sleep 0.05; done
    DBUS_SYSTEM_BUS_ADDRESS=$(cat "$2/address") exec "$5"' \
    _ "$SOURCE/tests/support/key-service-bus.py" "$WORK/keys" "$LUMORA_KEYS" "$WORK/keys.conf" "$LUMORA"
APP_PID=$SPAWNED
wait_until 30 listed || abort "Displays never listed both monitors"
check "the key service has taken the laptop keyboard" wait_until 20 equals 1 desk_value grabbed event0

# stepped FROM SIGN OUTPUT: the monitor on OUTPUT is a sixteenth (6.25) from FROM that way.
stepped() { local d=$(( $(brightness "$3") - $1 )); (( ${2}d >= 6 && ${2}d <= 7 )); }
# press KEY: a press and release on the laptop keyboard.
press() { desk key event0 "$1" 1 >/dev/null && desk key event0 "$1" 0 >/dev/null; }
# typed LETTER...: pressed and released on the laptop keyboard, each to reach the desktop.
TYPED=""
typed() { local l; for l in "$@"; do press "KEY_$l" && TYPED+=$l; done; }
# works_on N POINTER_X SIGN: the window moved onto output N and focused, the pointer on the other output; then
# StepDisplayInUse and a brightness key that way (letters typed around it) must each step output N's monitor by a
# sixteenth and leave the other's alone, and the on-screen display must show on output N while the window keeps
# the focus.
works_on()
{
    local n=$1 out=OUT$1 other=OUT$(( 3 - $1 )) key=KEY_BRIGHTNESS$([[ $3 == + ]] && echo UP || echo DOWN) kept from
    out=${!out} other=${!other}
    step "$WINDOW on $out, the pointer on $other: StepDisplayInUse(${3}0.0625), then $key"
    window_to "$n" || abort "the window did not move to $out"
    desktop_move "$2" 400
    kept=$(brightness "$other") from=$(brightness "$out")
    check "StepDisplayInUse answers" call StepDisplayInUse "${3}0.0625"
    # First, as it is up for 1.5 s only. (Plasma's own, on KDE, is not read back from the screen here; nor is the
    # focus, which KWin tells other programs nothing of.)
    [[ ${DESKTOP%%-*} == kde ]] ||
        check "the on-screen display is up on $out" wait_until 5 desktop_osd_lit "$n"
    check "the monitor on $out steps $3 from $from" wait_until 10 stepped "$from" "$3" "$out"
    [[ ${DESKTOP%%-*} == kde ]] || check "$WINDOW keeps the focus" window_focused
    cp "$WORK/osd.png" "$ARTIFACTS/osd-on-output-$n.png" 2>/dev/null
    typed H E L L O
    from=$(brightness "$out")
    press "$key"
    check "$key steps the monitor on $out from $from" wait_until 10 stepped "$from" "$3" "$out"
    typed W O R L D
    check "the monitor on $other stays at $kept" equals "$kept" brightness "$other"
}

step "a native Wayland window (weston-terminal)"
RUN_LOG="$WORK/terminal.log" desktop_run weston-terminal
TERMINAL_PID=$SPAWNED
WINDOW=$NATIVE
wait_until 20 window_shown || abort "no terminal window"
works_on 2 300 +
works_on 1 $(( OUTPUT_WIDTH + 300 )) -

step "an X11 window (xev, through XWayland), the terminal closed"
kill -TERM -- "-$TERMINAL_PID"
RUN_LOG="$WORK/xev.log" desktop_run xev -rv -name "$X11" -geometry 700x500
WINDOW=$X11
wait_until 20 window_shown || abort "no X11 window"
works_on 2 300 +
works_on 1 $(( OUTPUT_WIDTH + 300 )) -

step "a brightness key until its value is on the wire, 20 keys (the desk's log)"
for (( i = 0; i < 20; i++ )); do
    from=$(brightness "$OUT1") sign=$( (( i % 2 )) && echo - || echo +)
    press "KEY_BRIGHTNESS$([[ $sign == + ]] && echo UP || echo DOWN)"
    wait_until 10 stepped "$from" "$sign" "$OUT1" || { fail "key $i did not reach the monitor"; break; }
done

step "the time of a StepDisplayInUse call (gdbus included), 20 calls"
times=()
for (( i = 0; i < 20; i++ )); do
    t0=$(now_ms); call StepDisplayInUse 0; t1=$(now_ms)
    times+=($(( t1 - t0 )))
done
figure "StepDisplayInUse through gdbus on $(desktop_name): median $(printf '%s\n' "${times[@]}" | sort -n | sed -n 10p) ms, worst $(printf '%s\n' "${times[@]}" | sort -n | tail -1) ms"

step "the lookup a brightness key waits for, and the on-screen display until painted (bench_display_in_use)"
BENCH=$(dirname "$LUMORA")/../bench/display-in-use/bench_display_in_use
if [[ -x $BENCH ]]; then
    RUN_LOG="$WORK/bench.log" desktop_run "$VIRTUAL_DESK" --desk "$WORK/desk.json" -- "$(realpath "$BENCH")"
    BENCH_PID=$SPAWNED
    wait_until 120 bash -c '! kill -0 "$0" 2>/dev/null' "$BENCH_PID" || fail "the benchmark took over 2 minutes"
    wait "$BENCH_PID" 2>/dev/null
    grep -h "figure:\|rror\|Sanitizer" "$WORK/bench.log" | sed "s/^/   /"
else
    echo "   (no $BENCH: built with the benchmarks only)"
fi

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
figure "a brightness key until its value is on the wire on $(desktop_name): $took"
check "the letters typed went on in order ($got)" test "$got" == "$TYPED"
check "no press of a brightness key Lumora acted on went on ($brightness_presses)" test "$brightness_presses" -eq 0
finish
