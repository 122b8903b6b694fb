#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Desktop figures of the tray application, measured from outside on a virtual X11 desktop (Xvfb + openbox +
# trayer) with the virtual desk's monitors:
#   - start to docked icon: process start until the sun is viewable in the tray (median of 5 starts)
#   - idle RSS: resident memory 3 s after start, panel never opened, and again after the panel was used
#   - wake-ups over 10 s idle: context switches of all the process's threads while nothing happens
#   - panel open to first paint: the click on the icon until the panel is viewable (median of 5 openings)
#
#   figures.sh [LUMORA [VIRTUAL_DESK [PANEL_TIMER [OUT_FILE]]]]     (default: the release build)
#
# Exits 0 without figures when Xvfb is missing.
set -uo pipefail

ROOT=$(cd "$(dirname "$0")/../.." && pwd)
LUMORA=${1:-$ROOT/build/release/Lumora/lumora}
VIRTUAL_DESK=${2:-$ROOT/build/release/tools/virtual-desk/virtual-desk}
PANEL_TIMER=${3:-$ROOT/build/release/bench/desktop/panel-timer}
OUT=${4:-}

if ! command -v Xvfb >/dev/null 2>&1; then
    echo "desktop figures: skipped (Xvfb is not installed)"
    exit 0
fi
# shellcheck source=../../tests/e2e-desktop/desktop-session.sh
source "$ROOT/tests/e2e-desktop/desktop-session.sh"

WORK=$(mktemp -d "${TMPDIR:-/tmp}/lumora-figures.XXXXXX")
APP=""
cleanup() { session_stop; rm -rf "$WORK"; }
trap cleanup EXIT
session_environment "$WORK"

session_start "$WORK" 1280x800 || { echo "desktop figures: the virtual desktop did not start" >&2; exit 1; }

median() { sort -g | awk '{ v[NR] = $1 } END { if (NR == 0) print "n/a"; else print v[int((NR + 1) / 2)] }'; }

# The lumora process itself (under the virtual desk it runs below umockdev's wrapper): the owner of its icon.
app_pid() { local id; id=$(xwininfo -root -tree | awk '/\("panel" "trayer"\)/ {p=1} p && /\("lumora" "Lumora"\)/ {print $1; exit}'); xprop -id "$id" _NET_WM_PID | awk '{print $3}'; }
# per_thread PID: "tid context-switches" for every thread of the process.
per_thread()
{
    local t
    for t in /proc/"$1"/task/*; do
        echo "${t##*/} $(awk '/ctxt_switches/ { n += $2 } END { print n + 0 }' "$t/status" 2>/dev/null)"
    done
}
# wakeups PID SECONDS: "W E": context switches of the threads alive at both ends over the interval (W), and
# the number of threads that ended meanwhile (E, each ending is one more wake-up).
wakeups()
{
    local before after
    before=$(per_thread "$1")
    sleep "$2"
    after=$(per_thread "$1")
    awk 'NR == FNR { b[$1] = $2; next } ($1 in b) { w += $2 - b[$1]; seen[$1] = 1 }
         END { for (t in b) if (!(t in seen)) e++; print w + 0, e + 0 }' <(echo "$before") <(echo "$after")
}
threads() { ls /proc/"$1"/task | wc -l; }
rss_kib() { awk '/VmRSS/ {print $2}' /proc/"$1"/status; }

start_app()   # start_app desk|bare: starts lumora, waits for the icon; STARTED_MS is how long that took
{
    local t0
    t0=$(now_ms)
    if [[ $1 == desk ]]; then
        "$VIRTUAL_DESK" --control "$WORK/control" -- "$LUMORA" >"$WORK/lumora.log" 2>&1 &
    else
        "$LUMORA" >"$WORK/lumora.log" 2>&1 &
    fi
    APP=$!
    session_track "$APP"
    wait_until 30 icon_docked || { echo "desktop figures: lumora did not dock" >&2; exit 1; }
    STARTED_MS=$(( $(now_ms) - t0 ))
}
stop_app()    # ends the lumora of start_app; every figure starts from a desktop without one
{
    kill -TERM "$APP" 2>/dev/null
    wait_until 10 bash -c '! kill -0 "$0" 2>/dev/null' "$APP" || { echo "desktop figures: lumora did not end" >&2; exit 1; }
    wait "$APP" 2>/dev/null
    wait_until 10 bash -c '! xwininfo -root -tree | grep "(\"lumora\" \"Lumora\")" >/dev/null' ||
        { echo "desktop figures: lumora's windows did not go" >&2; exit 1; }
}

report=()
say() { report+=("$1"); echo "$1"; }

# Start to docked icon.
docks=()
for _ in 1 2 3 4 5; do
    start_app desk
    docks+=("$STARTED_MS")
    stop_app
done
say "start to docked icon (virtual desk, 3 displays): median $(printf '%s\n' "${docks[@]}" | median) ms  [${docks[*]}]"

for mode in desk bare; do
    start_app "$mode"
    sleep 3
    pid=$(app_pid)
    label=$([[ $mode == desk ]] && echo "virtual desk, 3 displays" || echo "no displays")
    say "idle RSS after start ($label): $(( $(rss_kib "$pid") / 1024 )) MiB, $(threads "$pid") threads"
    read -r w e < <(wakeups "$pid" 10)
    say "wake-ups over 10 s idle, panel never opened ($label): $w (threads ended meanwhile: $e)"

    if [[ $mode == desk ]]; then
        read -r IX IY IW IH < <(tray_icon)
        maps=(); paints=()
        for _ in 1 2 3 4 5; do
            xdotool mousemove $(( IX + IW / 2 )) $(( IY + IH / 2 ))
            "$PANEL_TIMER" 300 10000 >"$WORK/timer.out" 2>&1 &
            timer=$!
            wait_until 10 grep -q ready "$WORK/timer.out"
            xdotool click 1
            wait "$timer"
            read -r _ m _ p < <(grep '^map' "$WORK/timer.out")
            maps+=("$m"); paints+=("$p")
            wait_until 10 panel_shown
            sleep 0.6
            xdotool click 1
            wait_until 10 panel_hidden
            sleep 0.6
        done
        say "panel open (press to mapped): median $(printf '%s\n' "${maps[@]}" | median) ms  [${maps[*]}]"
        say "panel open to first paint (press to painted on screen): median $(printf '%s\n' "${paints[@]}" | median) ms  [${paints[*]}]"
        xdotool mousemove 640 600
        sleep 3   # the refreshes of the openings have finished
        say "idle RSS after using the panel ($label): $(( $(rss_kib "$pid") / 1024 )) MiB, $(threads "$pid") threads"
        read -r w e < <(wakeups "$pid" 10)
        say "wake-ups over 10 s idle after using the panel ($label): $w (threads ended meanwhile: $e)"
    fi
    stop_app
done

if [[ -n $OUT ]]; then
    printf '%s\n' "${report[@]}" >"$OUT"
fi
