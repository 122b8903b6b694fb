# SPDX-License-Identifier: GPL-3.0-or-later
# The scenarios' frame, sourced with LUMORA VIRTUAL_DESK ARTIFACT_DIR: the desktop session, a work directory, counted
# checks, screenshots, the virtual desk's control, Lumora's session bus interface. 77 when there is no Xvfb.
LUMORA=$1 VIRTUAL_DESK=$2 ARTIFACTS=$3
HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$HERE/desktop-session.sh"
source "$HERE/report.sh"
command -v Xvfb >/dev/null 2>&1 || { echo "SKIP: Xvfb is not installed"; exit 77; }
for tool in openbox trayer xdotool xwininfo xprop xev import xmessage dbus-daemon gdbus dbus-send; do command -v "$tool" \
    >/dev/null 2>&1 || { echo "FAIL: $tool is missing (scripts/install-deps.sh installs it)"; exit 1; }; done
rm -rf "$ARTIFACTS" && mkdir -p "$ARTIFACTS"
WORK=$(mktemp -d "${TMPDIR:-/tmp}/lumora-e2e.XXXXXX")
APP_PID=""
# A scenario that must do something before its session ends defines before_cleanup.
trap 'declare -F before_cleanup >/dev/null && before_cleanup; session_stop; cp "$WORK"/*.{log,jsonl} "$ARTIFACTS/" 2>/dev/null
    rm -rf "$WORK"' EXIT
session_environment "$WORK"
shot() { screenshot "$ARTIFACTS/$1.png" && echo "   screenshot: $ARTIFACTS/$1.png"; }
desk() { "$VIRTUAL_DESK" --send "$WORK/control" "$@"; }; desk_value() { desk "$@" | awk '$1 == "ok" {print $2}'; }
equals() { [[ "$("${@:2}")" == "$1" ]]; }
running() { kill -0 "$1" 2>/dev/null; }; ended() { ! running "$1"; }
no_violation() { check "the virtual desk saw no violation" bash -c '! grep -qi violation "$0"' "$1"; }
# start_desktop [notray]: a desktop that does not come up is about this machine, not Lumora: tried twice.
start_desktop() {
    session_start "$WORK" 1280x800 "${1:-tray}" || { mkdir -p "$ARTIFACTS/first-attempt" && session_stop
        cp "$WORK"/*.log "$ARTIFACTS/first-attempt/" 2>/dev/null; session_start "$WORK" 1280x800 "${1:-tray}"; } || abort "no virtual desktop"
    pass "display $DISPLAY"
}
# start_lumora LOG [DESK_FILE [ARGUMENT...]]: lumora on the virtual desk (its default desk, or DESK_FILE) as APP_PID.
start_lumora() {
    rm -f "$WORK/control"
    "$VIRTUAL_DESK" ${2:+--desk "$2"} --control "$WORK/control" --log "$WORK/desk.jsonl" -- "$LUMORA" "${@:3}" >"$1" 2>&1 &
    APP_PID=$! && session_track $APP_PID
}
# start_docked LOG [DESK_FILE [ARGUMENT...]]: start_lumora, then its sun docked in the tray, at IX IY IW IH.
start_docked() { start_lumora "$@"; find_icon 30 || abort "the sun never docked in the tray ($1)"; }
find_icon() { wait_until "$1" icon_docked && read -r IX IY IW IH < <(tray_icon); }
click_icon() { xdotool mousemove $(( IX + IW / 2 )) $(( IY + IH / 2 )) click "${1:-1}"; }
panel_state() { panel_shown && echo shown || echo hidden; }
# open_panel: a click on the icon, and the panel shown, at PX PY PW PH.
open_panel() { click_icon 1; wait_until 10 panel_shown && read -r PX PY PW PH < <(panel_geometry); }
quit_from_menu() { click_icon 3; check "menu shown" wait_until 20 menu_shown; xdotool key q; expect_exit_zero "$1"; }
quit_from_footer() { read -r PX PY PW PH < <(panel_geometry); xdotool mousemove $(( PX + PW - 46 )) $(( PY + PH - 28 )) click 1; expect_exit_zero "$1"; }
# ran COMMAND...: "STATUS LINES OUTPUT" of COMMAND run once (its stdout and stderr, within 20 s).
ran() { local out status; out=$(timeout -k 2 20 "$@" 2>&1); status=$?; echo "$status $(grep -c . <<<"$out") $out"; }
started_again_quietly() { check "$1: lumora started once more exits with status 0, silent" equals "0 0 " ran "$LUMORA"; }
# groove_x PERCENT: the x of that point of a slider's groove in the shown panel, from the dim sun to the bright one.
groove_x() { echo $(( PX + 40 + 220 * $1 / 100 )); }
# power_button SLIDER_Y: "x y" of the power button of the row whose slider is at SLIDER_Y (a dark mark above it).
power_button() {
    local x=$(( PX + 272 )) marks
    screenshot "$WORK/power.png"
    mapfile -t marks < <(dark_rows "$WORK/power.png" "$x" $(( $1 - 40 )) $(( $1 - 8 )))
    echo "$x ${marks[$(( ${#marks[@]} / 2 ))]:-$(( $1 - 25 ))}"
}
expect_exit_zero() {  # WHAT: the application ends within 20 s of WHAT, with status 0
    wait_until 20 ended "$APP_PID" || { fail "lumora still running 20 s after $1"; return; }
    wait "$APP_PID"; check "$1 ends lumora with exit status 0 ($?)" test "$?" -eq 0
}
# Lumora's session bus interface, as a script or a desktop shortcut calls it.
DEST=(--session --dest org.lumora.Lumora --object-path /org/lumora/Lumora)
call() { timeout -k 2 20 gdbus call "${DEST[@]}" --method "org.lumora.Lumora1.$1" -- "${@:2}"; }
send() { timeout -k 2 20 dbus-send --session --print-reply --dest=org.lumora.Lumora /org/lumora/Lumora "$@"; }
client() { timeout -k 2 30 /usr/bin/python3 "$HERE/bus-client.py" "$@"; }
listed() { [[ $(client displays 2>/dev/null | wc -l) -eq 3 ]]; }
# shown ID: "brightness on" of a display in the Displays property.
shown() { client displays | awk -F'\t' -v id="$1" '$1 == id {print $2, $3}'; }
# after ACTION WHAT EXPECTED COMMAND...: ACTION (its output dropped), then WHAT: COMMAND prints EXPECTED within 15 s.
after() { eval "$1" >/dev/null; check "$2" wait_until 15 equals "$3" "${@:4}"; }
# refused STATE TABLE: each line "CALL | EXPECTED": the call fails saying EXPECTED; then STATE prints as before.
refused() {
    local line out before
    before=$(eval "$1")
    while IFS='|' read -r line expected; do
        [[ -n $line ]] || continue
        out=$(eval "$line" 2>&1) && { fail "$line succeeded: $out"; continue; }
        [[ $out == *"${expected# }"* ]] && pass "$line: ${expected# }" || fail "$line said: $out"
    done <<<"$2"
    check "nothing changed: $1 as before ($before)" equals "$before" eval "$1"
}
# desk_state: brightness and power of both monitors, the backlight, and the number of transactions so far.
desk_state() { echo "$(monitor card0-DP-1) $(monitor card0-HDMI-A-1) $(desk_value backlight intel_backlight) $(desk_value transactions)"; }
monitor() { echo "$(desk_value brightness "$1") $(desk_value power "$1")"; }
