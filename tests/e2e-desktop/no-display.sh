#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# The tray application where no display server answers: one line saying why, and status 1 (not a crash); --help and
# --version answer on stdout without any display.
#   no-display.sh LUMORA
set -uo pipefail
LUMORA=$1 failures=0
WORK=$(mktemp -d "${TMPDIR:-/tmp}/lumora-nodisplay.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
mkdir -m 700 "$WORK/runtime"
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0" XDG_RUNTIME_DIR="$WORK/runtime"
unset QT_QPA_PLATFORM
# DISPLAY | WAYLAND_DISPLAY | argument | status | where (1 stdout, 2 stderr) | what that line holds
while IFS='|' read -r display wayland argument status where word; do
    env -u DISPLAY -u WAYLAND_DISPLAY ${display:+DISPLAY=$display} ${wayland:+WAYLAND_DISPLAY=$wayland} \
        DBUS_SESSION_BUS_ADDRESS="unix:path=$WORK/no-bus" timeout -k 2 30 "$LUMORA" $argument >"$WORK/1" 2>"$WORK/2"
    got=$? out=$(cat "$WORK/$where")
    # A refusal is one line (Qt may add one of its own); an answer leaves stderr empty.
    if [[ $got == "$status" && $out == *"$word"* ]] && if (( status )); then [[ $out == lumora:* ]] &&
        (( $(grep -c . <<<"$out") <= 2 )); else [[ ! -s $WORK/2 ]]; fi; then
        echo "ok: DISPLAY=$display WAYLAND_DISPLAY=$wayland $argument: status $got, \"$out\""
    else
        echo "FAIL: DISPLAY=$display WAYLAND_DISPLAY=$wayland $argument: status $got, $out, stderr: $(cat "$WORK/2")"
        failures=$((failures + 1))
    fi
done <<'CASES'
|||1|2| DISPLAY nor WAYLAND_DISPLAY
:4711|||1|2|DISPLAY=:4711
|lumora-test-nowhere||1|2|WAYLAND_DISPLAY=lumora-test-nowhere
:4711|lumora-test-nowhere||1|2|DISPLAY=:4711
||--help|0|1|Usage: lumora [--background]
||-h|0|1|LUMORA_PROBE=1 lumora
||--version|0|1|lumora 
CASES
echo
(( failures == 0 )) && { echo "1 passed, 0 failed"; exit 0; }
echo "0 passed, 1 failed"
exit 1
