#!/usr/bin/env bash
# The tray application where no display server answers: one line saying why, and exit status 1 (not a crash);
# --help and --version answer without any display.
#
#   no-display.sh LUMORA
set -uo pipefail
LUMORA=$1
WORK=$(mktemp -d "${TMPDIR:-/tmp}/lumora-nodisplay.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
mkdir -m 700 "$WORK/runtime"
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
unset QT_QPA_PLATFORM
failures=0

# what | DISPLAY | WAYLAND_DISPLAY | a word the line must hold
cases=(
    "no session||| DISPLAY nor WAYLAND_DISPLAY"
    "a DISPLAY nobody serves|:4711||DISPLAY=:4711"
    "a Wayland socket that is not there||lumora-test-nowhere|WAYLAND_DISPLAY=lumora-test-nowhere"
    "a dead DISPLAY and a dead Wayland socket|:4711|lumora-test-nowhere|DISPLAY=:4711"
)
for c in "${cases[@]}"; do
    IFS='|' read -r what display wayland word <<<"$c"
    out=$(env -u DISPLAY -u WAYLAND_DISPLAY ${display:+DISPLAY=$display} ${wayland:+WAYLAND_DISPLAY=$wayland} \
          XDG_RUNTIME_DIR="$WORK/runtime" DBUS_SESSION_BUS_ADDRESS="unix:path=$WORK/no-bus" \
          timeout -k 2 30 "$LUMORA" 2>&1 >/dev/null)
    status=$?
    lines=$(grep -c . <<<"$out")
    if [[ $status -eq 1 && $out == *"$word"* && $out == lumora:* ]] && (( lines <= 2 )); then
        echo "ok: $what: status 1, \"$out\""
    else
        echo "FAIL: $what: status $status, $lines lines: $out"
        failures=$((failures + 1))
    fi
done
# what | argument | what stdout must hold
asked=(
    "--help|--help|Usage: lumora [--background]"
    "-h|-h|LUMORA_PROBE=1 lumora"
    "--version|--version|lumora "
)
for c in "${asked[@]}"; do
    IFS='|' read -r what argument word <<<"$c"
    out=$(env -u DISPLAY -u WAYLAND_DISPLAY XDG_RUNTIME_DIR="$WORK/runtime" timeout -k 2 30 "$LUMORA" "$argument" 2>"$WORK/err")
    status=$?
    if [[ $status -eq 0 && $out == *"$word"* && ! -s $WORK/err ]]; then
        echo "ok: $what without a display: status 0, on stdout"
    else
        echo "FAIL: $what: status $status, stdout: $out, stderr: $(cat "$WORK/err")"
        failures=$((failures + 1))
    fi
done
echo
if (( failures == 0 )); then echo "1 passed, 0 failed"; exit 0; fi
echo "0 passed, 1 failed"
exit 1
