#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# run.sh BUILD_DIR DESKTOP...: scenario.sh on each desktop, each under 3 minutes, then the figures and verdicts;
# artefacts in BUILD_DIR/desktops/<desktop>/. Status 0 when every desktop passed or was skipped.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD=$1 && shift
failed=0
summary=()
for desktop in "$@"; do
    echo "=== $desktop"
    out="$BUILD/desktops/$desktop"
    timeout -k 10 180 bash "$HERE/scenario.sh" "$desktop" "$BUILD/Lumora/lumora" "$BUILD/tools/virtual-desk/virtual-desk" \
        "$out" 2>&1 | tee "$BUILD/desktops-$desktop.txt"
    case ${PIPESTATUS[0]} in
        0) summary+=("$desktop: passed") ;;
        77) summary+=("$desktop: skipped") ;;
        124|137) summary+=("$desktop: FAILED (over 3 minutes)"); failed=1 ;;
        *) summary+=("$desktop: FAILED"); failed=1 ;;
    esac
    figures=$(sed -n 's/^ *figure: /    /p' "$BUILD/desktops-$desktop.txt") && [[ -n $figures ]] && summary+=("$figures")
    mkdir -p "$out" && mv "$BUILD/desktops-$desktop.txt" "$out/scenario.txt"
done
echo
printf '%s\n' "${summary[@]}"
(( failed == 0 ))
