#!/usr/bin/env bash
# The monitor the user works on, on a real Wayland desktop started headless: two outputs, the virtual desk's
# connectors named as the compositor names its outputs (so that the unmodified lumora pairs each with its output as
# on a real desk), a native Wayland window (weston-terminal) the user works in. StepDisplayInUse, as a desktop
# shortcut calls it, must act on the monitor holding the window, wherever the pointer is; the on-screen display
# must show on that monitor and leave the window the focus. Prints the time of a StepDisplayInUse call.
#
#   display-in-use.sh DESKTOP LUMORA VIRTUAL_DESK ARTIFACT_DIR
#
# DESKTOP: sway, gnome (with Lumora's GNOME Shell extension), kde (KWin and plasmashell; there the window is moved by
# a KWin script of the test's, and neither the focus nor Plasma's on-screen display is read back). Needs root (the desktops run as a test user).
# Exit status: 0 passed, 1 failed, 77 skipped. Screenshots and logs stay in ARTIFACT_DIR.
set -uo pipefail

DESKTOP=$1
LUMORA=$(realpath "$2")
VIRTUAL_DESK=$(realpath "$3")
ARTIFACTS=$4
EXTRA_TOOLS=weston-terminal
# shellcheck source=frame.sh
source "$(dirname "$0")/frame.sh"
SOURCE=$(cd "$HERE/../.." && pwd)
equals() { [[ "$("${@:2}")" == "$1" ]]; }

# The outputs' names, as this compositor gives them.
case ${DESKTOP%%-*} in
    sway) OUT1=HEADLESS-1 OUT2=HEADLESS-2 ;;
    gnome) OUT1=Meta-0 OUT2=Meta-1 ;;
    kde) OUT1=Virtual-0 OUT2=Virtual-1 ;;  # KWin's virtual outputs take the whole --width each: 2560 wide
    *) echo "SKIP: no display-in-use scenario for $DESKTOP"; exit 77 ;;
esac

# Two monitors on the outputs' connectors, each with its own DDC channel.
cat >"$WORK/desk.json" <<DESK
{ "cards": [ { "connectors": [
    { "name": "$OUT1", "connectorId": 201, "edid": { "vendor": "DEL", "model": "0xA0C4", "serial": 1280012594, "name": "DELL U2720Q" },
      "ddc": { "bus": 5 }, "monitor": { "current": 50 } },
    { "name": "$OUT2", "connectorId": 202, "edid": { "vendor": "GSM", "model": "0x5B09", "serial": 369841, "name": "LG HDR 4K" },
      "ddc": { "bus": 6 }, "monitor": { "current": 70 } } ] } ] }
DESK
chmod 644 "$WORK/desk.json"

desk() { "$VIRTUAL_DESK" --send "$SESSION_OUT/control" "$@"; }
brightness() { desk brightness "card0-$1" | awk '$1 == "ok" {print $2}'; }
call() { as_user timeout -k 2 20 gdbus call --session --dest org.lumora.Lumora --object-path /org/lumora/Lumora \
    --method "org.lumora.Lumora1.$1" -- "${@:2}" >/dev/null; }
listed()
{
    local shown
    shown=$(as_user timeout -k 2 10 gdbus call --session --dest org.lumora.Lumora --object-path /org/lumora/Lumora \
        --method org.freedesktop.DBus.Properties.Get org.lumora.Lumora1 Displays 2>/dev/null)
    [[ $shown == *"DELL U2720Q"* && $shown == *"LG HDR 4K"* ]]
}

# The terminal the user works in: shown, moved onto output N (and focused there), focused.
TERMINAL=org.freedesktop.weston.wayland-terminal
case ${DESKTOP%%-*} in
    sway)
        terminal_shown() { as_user swaymsg -t get_tree | grep -q "\"app_id\": \"$TERMINAL\""; }
        terminal_to() { as_user swaymsg "[app_id=\"$TERMINAL\"] move to output HEADLESS-$1, focus" >/dev/null; }
        terminal_focused()
        {
            as_user swaymsg -t get_tree | python3 -c '
import json, sys
def focused(n):
    if n.get("focused"): return n
    for c in n.get("nodes", []) + n.get("floating_nodes", []):
        f = focused(c)
        if f: return f
print((focused(json.load(sys.stdin)) or {}).get("app_id"))' | grep -qx "$TERMINAL"
        }
        ;;
    gnome)
        terminal_window="global.get_window_actors().map(a => a.meta_window).find(w => w.get_wm_class() === '$TERMINAL')"
        terminal_shown() { [[ $(gnome_eval "!!$terminal_window") == true ]]; }
        # Onto the output, 700 of its 742 pixels across it, and focused; asked again until it is there (a window
        # just mapped is still placed by the shell, which may undo the first move).
        terminal_moved_to()
        {
            local x=$(( ($1 - 1) * 1280 + 200 ))
            # The frame's x before this try's move: there already only when an earlier move held.
            [[ $(gnome_eval "const w = $terminal_window; const x = w.get_frame_rect().x;
                             if (x !== $x) w.move_frame(true, $x, 200);
                             w.activate(global.get_current_time()); x") == "$x" ]]
        }
        terminal_to() { wait_until 10 terminal_moved_to "$1"; }
        terminal_focused() { [[ $(gnome_eval "global.display.get_focus_window()?.get_wm_class()") == "$TERMINAL" ]]; }
        ;;
    kde)
        # KWin tells other programs nothing of its windows: a KWin script of the test's own moves the terminal
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
        terminal_shown() { pgrep -u "$DESKTOP_USER" -x weston-terminal >/dev/null; }
        # Moved and activated until the screen shows it there (a window just mapped may not be listed yet; the
        # script finds nothing then): the terminal's black where its middle must be.
        terminal_moved_to()
        {
            local x=$(( ($1 - 1) * 2560 + 200 ))
            kwin_script "const c = workspace.clientList().find(c => c.caption === 'Wayland Terminal');
                if (c) { const g = c.frameGeometry;
                         c.frameGeometry = {x: $x, y: 200, width: g.width, height: g.height};
                         workspace.activeClient = c; }" &&
                desktop_screenshot "$WORK/moved.png" &&
                session_convert "$WORK/moved.png" -crop "1x1+$(( x + 300 ))+400" +repage -depth 8 txt:- |
                    awk -F'[ ,:()]+' 'NR == 2 { exit !($3 < 20 && $4 < 20 && $5 < 20) }'
        }
        terminal_to() { wait_until 20 terminal_moved_to "$1"; }
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

step "lumora on the virtual desk, in the session"
RUN_LOG="$WORK/lumora.log" desktop_run "$VIRTUAL_DESK" --desk "$WORK/desk.json" --control "$SESSION_OUT/control" -- "$LUMORA"
APP_PID=$SPAWNED
wait_until 30 listed || abort "Displays never listed both monitors"

# works_on N POINTER_X STEP: the terminal moved onto output N and focused, the pointer on the other output; then
# StepDisplayInUse(STEP) must change output N's monitor from its level to the next and leave the other's alone,
# and the on-screen display must show on output N while the terminal keeps the focus.
declare -A LEVEL=([1]=50 [2]=70)
works_on()
{
    local n=$1 other=$(( 3 - $1 )) out other_out to
    out=$([[ $1 == 1 ]] && echo "$OUT1" || echo "$OUT2")
    other_out=$([[ $1 == 1 ]] && echo "$OUT2" || echo "$OUT1")
    to=$(( LEVEL[$n] + ${3/0.0625/6} ))
    step "the window on $out, the pointer on $other_out: StepDisplayInUse($3)"
    terminal_to "$n" || abort "the terminal did not move to $out"
    desktop_move "$2" 400
    check "StepDisplayInUse answers" call StepDisplayInUse "$3"
    # First, as it is up for 1.5 s only. (Plasma's own, on KDE, is not read back from the screen here; nor is the
    # focus, which KWin tells other programs nothing of.)
    [[ ${DESKTOP%%-*} == kde ]] ||
        check "the on-screen display is up on $out" wait_until 5 desktop_osd_lit "$n"
    check "the monitor on $out steps from ${LEVEL[$n]} to $to" wait_until 10 equals "$to" brightness "$out"
    check "the monitor on $other_out stays at ${LEVEL[$other]}" equals "${LEVEL[$other]}" brightness "$other_out"
    [[ ${DESKTOP%%-*} == kde ]] || check "the terminal keeps the focus" terminal_focused
    cp "$WORK/osd.png" "$ARTIFACTS/osd-on-output-$n.png" 2>/dev/null
    LEVEL[$n]=$to
}

step "a native Wayland window (weston-terminal)"
RUN_LOG="$WORK/terminal.log" desktop_run weston-terminal
wait_until 20 terminal_shown || abort "no terminal window"
works_on 2 300 0.0625
works_on 1 1900 -0.0625

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

kill -TERM "$APP_PID" 2>/dev/null
finish
