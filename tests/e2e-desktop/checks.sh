# The end-to-end scenarios' shared frame: the desktop session's tools, a work directory, checks that count
# failures, screenshots kept as artefacts, the virtual desk's control, and the closing line ctest reads. Each
# scenario script sources it with its own arguments, LUMORA VIRTUAL_DESK ARTIFACT_DIR first:
#
#   source "$HERE/checks.sh" "$@"
#
# Every scenario prints "1 passed, 0 failed" or "0 passed, 1 failed (...)" last and exits 0 or 1; 77 when the
# machine has no Xvfb.

LUMORA=$1
VIRTUAL_DESK=$2
ARTIFACTS=$3
# shellcheck source=desktop-session.sh
source "$(dirname "${BASH_SOURCE[0]}")/desktop-session.sh"
# shellcheck source=report.sh
source "$(dirname "${BASH_SOURCE[0]}")/report.sh"

if ! command -v Xvfb >/dev/null 2>&1; then
    echo "SKIP: Xvfb is not installed"
    exit 77
fi
for tool in openbox trayer xdotool xwininfo xprop import xmessage dbus-daemon; do
    command -v "$tool" >/dev/null 2>&1 || { echo "FAIL: $tool is missing (scripts/install-deps.sh installs it)"; exit 1; }
done

rm -rf "$ARTIFACTS"
mkdir -p "$ARTIFACTS"
WORK=$(mktemp -d "${TMPDIR:-/tmp}/lumora-e2e.XXXXXX")
APP_PID=""

# A scenario that must do something before its session ends defines before_cleanup.
cleanup()
{
    if declare -F before_cleanup >/dev/null; then before_cleanup; fi
    session_stop
    cp "$WORK"/*.log "$WORK"/*.jsonl "$ARTIFACTS/" 2>/dev/null || true
    rm -rf "$WORK"
}
trap cleanup EXIT

session_environment "$WORK"

shot() { screenshot "$ARTIFACTS/$1.png" && echo "   screenshot: $ARTIFACTS/$1.png"; }
desk() { "$VIRTUAL_DESK" --send "$WORK/control" "$@"; }
desk_value() { desk "$@" | awk '$1 == "ok" {print $2}'; }
equals() { [[ "$("${@:2}")" == "$1" ]]; }
running() { kill -0 "$1" 2>/dev/null; }

# start_desktop [notray]: the virtual desktop, tried twice: one that does not come up is about this machine, not
# about Lumora, but a second failure is reported.
start_desktop()
{
    if ! session_start "$WORK" 1280x800 "${1:-tray}"; then
        mkdir -p "$ARTIFACTS/first-attempt"
        cp "$WORK"/*.log "$ARTIFACTS/first-attempt/" 2>/dev/null
        session_stop
        session_start "$WORK" 1280x800 "${1:-tray}" || abort "the virtual desktop did not start"
    fi
    pass "display $DISPLAY"
}

# start_lumora LOG [DESK_FILE [ARGUMENT...]]: lumora on the virtual desk (its default desk, or the one in DESK_FILE
# when not empty), started with ARGUMENTs, in the background as APP_PID, with the desk's control socket and
# transaction log in WORK.
start_lumora()
{
    local log=$1 desk_args=()
    [[ -n ${2:-} ]] && desk_args=(--desk "$2")
    rm -f "$WORK/control"
    "$VIRTUAL_DESK" "${desk_args[@]}" --control "$WORK/control" --log "$WORK/desk.jsonl" -- "$LUMORA" "${@:3}" >"$log" 2>&1 &
    APP_PID=$!
    session_track "$APP_PID"
}

# start_docked LOG [DESK_FILE [ARGUMENT...]]: start_lumora, then its sun docked in the tray, at IX IY IW IH.
start_docked()
{
    start_lumora "$@"
    wait_until 30 icon_docked || abort "the sun never docked in the tray ($1)"
    read -r IX IY IW IH < <(tray_icon)
}
# click_icon [BUTTON]: a click on the docked icon (button 1 unless given).
click_icon() { xdotool mousemove $(( IX + IW / 2 )) $(( IY + IH / 2 )) click "${1:-1}"; }
# open_panel: a click on the icon, and the panel shown, at PX PY PW PH.
open_panel() { click_icon 1; wait_until 10 panel_shown && read -r PX PY PW PH < <(panel_geometry); }
# quit_from_footer WHAT: the footer's Quit ends lumora with status 0.
quit_from_footer()
{
    read -r PX PY PW PH < <(panel_geometry)
    xdotool mousemove $(( PX + PW - 16 - 30 )) $(( PY + PH - 16 - 12 )) click 1
    expect_exit_zero "$1"
}
# started_again_quietly WHAT: lumora started once more exits with status 0 and prints nothing.
started_again_quietly()
{
    local out status
    out=$(timeout -k 2 20 "$LUMORA" 2>&1)
    status=$?
    check "$1: exit status 0 (was $status)" test "$status" -eq 0
    check "$1: printed nothing (printed: $out)" test -z "$out"
}
# groove_x PERCENT: the x of that point of a slider's groove in the shown panel, from the dim sun to the bright one.
groove_x() { echo $(( PX + 40 + 220 * $1 / 100 )); }
# power_button SLIDER_Y: "x y" of the power button of the row whose slider is at SLIDER_Y (a dark mark above it).
power_button()
{
    local x=$(( PX + 300 - 16 - 12 )) marks
    screenshot "$WORK/power.png"
    mapfile -t marks < <(dark_rows "$WORK/power.png" "$x" $(( $1 - 40 )) $(( $1 - 8 )))
    echo "$x ${marks[$(( ${#marks[@]} / 2 ))]:-$(( $1 - 25 ))}"
}

# expect_exit_zero WHAT: the application ends within 20 s of WHAT, with status 0.
expect_exit_zero()
{
    if wait_until 20 bash -c '! kill -0 "$0" 2>/dev/null' "$APP_PID"; then
        wait "$APP_PID"
        local status=$?
        check "$1 ends lumora with exit status 0 (was $status)" test "$status" -eq 0
    else
        fail "lumora still running 20 s after $1"
    fi
}

# map_log_start: the map-log tool (MAP_LOG) writing to WORK/maps.log, listening before this returns.
map_log_start()
{
    "$MAP_LOG" >"$WORK/maps.log" 2>&1 &
    session_track $!
    wait_until 10 grep -q ready "$WORK/maps.log" || abort "map-log did not start"
}
# map_events KIND ID: how many times the window was mapped (KIND map) or unmapped (unmap) so far.
map_events() { grep -c "^$1 $(printf '0x%x' "$2")\$" "$WORK/maps.log"; }
