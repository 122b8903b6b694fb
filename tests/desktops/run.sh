#!/usr/bin/env bash
# `make test-desktops`: the tray application's scenario (scenario.sh) on each real desktop named, one after the
# other, each under a 3-minute limit; the figures and the verdict of each at the end. Screenshots and logs stay in
# BUILD_DIR/desktops/<desktop>/.
#
#   run.sh BUILD_DIR DESKTOP...     (DESKTOP: sway xfce gnome gnome-appindicator kde)
#
# Exit status: 0 when every desktop passed (or was skipped), 1 otherwise.
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
