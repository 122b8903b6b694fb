#!/usr/bin/env bash
# `make test-desktops`: scenario.sh on each desktop named (sway xfce gnome gnome-appindicator kde), each under 3
# minutes, then the figures and verdicts; artefacts in BUILD_DIR/desktops/<desktop>/. Exit status 0 when every
# desktop passed or was skipped.
#
#   run.sh BUILD_DIR DESKTOP...
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD=$1
shift
failed=()
summary=()
for desktop in "$@"; do
    echo "=== $desktop"
    out="$BUILD/desktops/$desktop"
    timeout -k 10 180 bash "$HERE/scenario.sh" "$desktop" "$BUILD/Lumora/lumora" "$BUILD/tools/virtual-desk/virtual-desk" \
        "$out" 2>&1 | tee "$BUILD/desktops-$desktop.txt"
    status=${PIPESTATUS[0]}
    case $status in
        0) verdict=passed ;;
        77) verdict=skipped ;;
        124|137) verdict="FAILED (over 3 minutes)"; failed+=("$desktop") ;;
        *) verdict=FAILED; failed+=("$desktop") ;;
    esac
    summary+=("$desktop: $verdict")
    while read -r line; do summary+=("    ${line#*figure: }"); done < <(grep 'figure:' "$BUILD/desktops-$desktop.txt")
    mkdir -p "$out" && mv "$BUILD/desktops-$desktop.txt" "$out/scenario.txt"
done
echo
printf '%s\n' "${summary[@]}"
(( ${#failed[@]} == 0 ))
